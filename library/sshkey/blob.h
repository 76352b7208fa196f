// Encoding of public keys in the SSH protocol (RFC 4251 section 5, RFC 4253 section 6.6): strings and
// numbers, each after its length.
#pragma once

#include <openssl/bn.h>

#include <cstddef>
#include <cstdint>

namespace quill {

// Return encoded sizes in bytes: that of a string of `length` bytes, and the largest that a number can have.
constexpr size_t string_size(size_t length) { return sizeof(uint32_t) + length; }
inline size_t max_mpint_size(const BIGNUM* number) {
    return string_size(static_cast<size_t>(BN_num_bytes(number)) + 1);
}

// Writes a string. Returns the number of bytes written.
int32_t sshkey_put_string(unsigned char* position, const void* bytes, uint32_t length);

// Writes a number. Returns the number of bytes written, or -1 for a negative number, which no key has.
int32_t sshkey_put_mpint(unsigned char* position, const BIGNUM* number);

}  // namespace quill
