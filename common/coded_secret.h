// What an encoder or decoder of secrets hands out: a block of the heap, all of it wiped before it is freed.
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

    // For the encoder to fill.
    char** block() { return &bytes_; }
    uint32_t* length() { return &length_; }

    const char* bytes() const { return bytes_; }
    uint32_t size() const { return length_; }

    // There is a secret, and the field has room for it.
    template <size_t size>
    bool fits(const char (&)[size]) const {
        return bytes_ != nullptr && length_ != 0 && length_ <= size;
    }

    // Exactly the secret's bytes; the rest of the field keeps what it held.
    void copy_to(char* field) const { memcpy(field, bytes_, length_); }

 private:
    char* bytes_ = nullptr;
    uint32_t length_ = 0;
};

}  // namespace quill
