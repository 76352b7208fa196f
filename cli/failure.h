// How a command fails: exit codes, messages, and the exit code and message of each status of the daemon.
#pragma once

#include <cstdint>
#include <string>

#include "quillsecurity/status.h"

namespace quill::cli {

// Scripts rely on these numbers; `quillsec --help` lists them.
enum class Exit {
    kOk = 0,
    kFailed = 1,
    kUsage = 2,
    kNoSuchObject = 3,
    kExists = 4,
    kNotPermitted = 5,
    kInvalidValue = 6,
    kUnreachable = 7,
    kBusy = 8,
    kStoreFailure = 9,
    kTimeout = 10,
};

// What a verb throws if it fails. All texts begin in lower case.
struct Failure {
    Exit exit;
    std::string object;            // what failed: "service 'ssh'"
    std::string text;              // what is wrong, a sentence that names the object
    std::string remedy;            // what to do about it
    uint32_t status = 0;           // of the request; 0 if there was none
    bool outcome_unknown = false;  // the request may or may not have been executed
};

// Returns the status for the result of a client function: SECURITY_ERR_TRANSPORT | errno for a request that
// could not be delivered, any other result as it is. To be called at once, while errno is the channel's.
uint32_t status_of(uint32_t result);

// Throws the Failure of a status other than 0. `action` is what the request was to do with the object: one of
// "ask", "read", "verify", "convert", "listen to" and "receive", which change nothing, or another verb such
// as "change". If the daemon may have executed a change without a reply, the failure says so.
void require_success(uint32_t status, const std::string& object, const char* action);

// Returns the name of a status, like SECURITY_ERR_NOT_FOUND or PSS_FULL; for a request that was not
// delivered, the name of the errno, like ECONNREFUSED. Returns an empty text for an unknown status.
std::string status_name(uint32_t status);

// Returns the system's text for an errno as part of a sentence: "no space left on device".
std::string error_text(int error);

}  // namespace quill::cli
