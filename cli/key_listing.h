// What ssh-keygen says of a public key.
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

}  // namespace quill::cli
