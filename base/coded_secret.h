// The result of an encoder or decoder of secrets (encryption_func, decryption_func): a malloc()ed block,
// wiped whole before it is freed.
#pragma once

#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace quill {

class CodedSecret {
 public:
    CodedSecret() = default;
    ~CodedSecret() {
        if (bytes_ != nullptr) explicit_bzero(bytes_, malloc_usable_size(bytes_));
        free(bytes_);
    }
    CodedSecret(const CodedSecret&) = delete;
    CodedSecret& operator=(const CodedSecret&) = delete;

    // Output arguments for one call of an encoder or decoder. The block it stores is owned by this object.
    char** block() { return &bytes_; }
    uint32_t* length() { return &length_; }

    // The secret and its length in bytes; null and 0 before the call.
    const char* bytes() const { return bytes_; }
    uint32_t size() const { return length_; }

    // Returns true if there is a secret of at least one byte and it fits the field.
    template <size_t size>
    bool fits(const char (&)[size]) const {
        return bytes_ != nullptr && length_ != 0 && length_ <= size;
    }

    // Copies exactly the secret's bytes to the start of the field; the rest of the field is unchanged.
    void copy_to(char* field) const { memcpy(field, bytes_, length_); }

 private:
    char* bytes_ = nullptr;
    uint32_t length_ = 0;
};

}  // namespace quill
