// Bytes of any number that may be secret.
#pragma once

#include <cstring>
#include <vector>

namespace quill {

// Wiped when it goes out of scope. It must not grow beyond its first size: what a vector leaves behind when
// it moves is not wiped.
struct SecretBytes : std::vector<char> {
    using vector::vector;
    SecretBytes(SecretBytes&& other) = default;
    ~SecretBytes() {
        if (!empty()) explicit_bzero(data(), size());
    }
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    SecretBytes& operator=(SecretBytes&&) = delete;
};

}  // namespace quill
