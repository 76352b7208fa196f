// SSH public keys as the daemon stores them.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "quillsecurity.h"

namespace quill::cli {

// "SSH key of user 'amy'", for messages.
std::string key_object(const std::string& user);

// Returns a record (ssh_key_rec or ssh_key_new_rec) with this user's name. Throws Failure for a name that
// does not fit.
template <class Record>
Record key_record_of(const std::string& user) {
    Record record{};
    if (user.empty() || user.size() >= sizeof record.user_name) {
        throw Failure{Exit::kInvalidValue, key_object(user),
                      fmt::format("{}: the name is not valid", key_object(user)),
                      fmt::format("use 1 to {} bytes", sizeof record.user_name - 1)};
    }
    std::copy(user.begin(), user.end(), record.user_name);
    return record;
}

// Sends a request as ask() does and terminates the texts of the reply.
uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_rec& record);
uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_new_rec& record);

// A stored key. The line is OpenSSH text; empty if the key cannot be converted.
struct StoredKey {
    std::string user;
    uint8_t format;
    std::string line;
};

// Returns the first line of the text, without the blanks at its end.
std::string first_line(const char* text);

// Return all keys, sorted by user, or the key of one user. Throw Failure if that user has none or if a
// request fails.
std::vector<StoredKey> stored_keys();
StoredKey stored_key(const std::string& user);

}  // namespace quill::cli
