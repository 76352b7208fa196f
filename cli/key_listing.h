// What is known of a public key before and after it is a user's.
#pragma once

#include <optional>
#include <string>

namespace quill::cli {

struct KeyListing {
    uint32_t bits;
    std::string fingerprint;  // "SHA256:..."
    std::string type;         // "RSA"
};

// Of one line of OpenSSH text; none where ssh-keygen does not take it for a key.
std::optional<KeyListing> listed(const std::string& line);

// Throws Failure where a file of a device, "bootflash:PATH", holds no key that this user could log in with.
// What is named in another way is for the library to judge.
void check_key_file(const std::string& name, const std::string& user);

}  // namespace quill::cli
