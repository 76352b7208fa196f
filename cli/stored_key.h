// SSH public keys as the daemon keeps them.
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

// A record of this user: ssh_key_rec or ssh_key_new_rec. Throws Failure for a name that does not fit.
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

// Asks the daemon; with the texts of the reply ended, whoever sent it.
uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_rec& record);
uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_new_rec& record);

// A user's key as it is stored, and as a line, which is empty where it cannot be one.
struct StoredKey {
    std::string user;
    uint8_t format;
    std::string line;
};

// The text up to the end of its line, without blanks at its end.
std::string first_line(const char* text);

// All of them by name, or that of one user. Throw Failure where there is none or they cannot be read.
std::vector<StoredKey> stored_keys();
StoredKey stored_key(const std::string& user);

}  // namespace quill::cli
