// How a command ends when it does not end well: the exit codes, what is said, and what each status of the
// daemon comes to.
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

// What a verb throws when it cannot do what it was asked. All of it is lower case.
struct Failure {
    Exit exit;
    std::string object;            // what it is about: "service 'ssh'"
    std::string text;              // what is wrong, a sentence that names the object
    std::string remedy;            // what to do about it
    uint32_t status = 0;           // what was answered to the request; 0 where none was made
    bool outcome_unknown = false;  // the request may or may not have been carried out
};

// Takes the result of a client function, at once, while errno is still the channel's: a request that could
// not be delivered becomes SECURITY_ERR_TRANSPORT | errno, any other result stays as it is.
uint32_t status_of(uint32_t result);

// Throws the Failure of a status other than 0. `deed` is what the request was to do to the object: "read",
// "verify", "convert" or "run", which change nothing, or else a verb such as "change" or "delete". Where the
// daemon may have carried out a change and its answer is missing, the failure says so.
void require_success(uint32_t status, const std::string& object, const char* deed);

// Whether the status is that of a request that was not delivered.
constexpr bool is_undelivered(uint32_t status) { return (status & 0xffff0000) == SECURITY_ERR_TRANSPORT; }

// The name of a status as programs know it: SECURITY_ERR_NOT_FOUND, PSS_FULL; for a request that was not
// delivered that of its errno: ECONNREFUSED. Empty for a status that has none.
std::string status_name(uint32_t status);

// What the system says of an errno, as part of a sentence: "no space left on device".
std::string error_text(int error);

}  // namespace quill::cli
