// The description of a public key by ssh-keygen.
#pragma once

#include <optional>
#include <string>

namespace quill::cli {

struct KeyListing {
    uint32_t bits;
    std::string fingerprint;  // "SHA256:..."
    std::string type;         // "RSA"
};

// Runs ssh-keygen -l on a line of OpenSSH text. Returns nothing if the line is no key for ssh-keygen.
std::optional<KeyListing> list_key(const std::string& line);

}  // namespace quill::cli
