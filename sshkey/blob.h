// A public key as the SSH protocol writes it (RFC 4251 section 5, RFC 4253 section 6.6): texts and numbers,
// each behind its length.
#pragma once

#include <openssl/bn.h>

#include <cstddef>
#include <cstdint>

namespace quill {

// Room that a string of so many bytes, or this number, takes at most.
constexpr size_t string_room(size_t length) { return sizeof(uint32_t) + length; }
inline size_t mpint_room(const BIGNUM* number) {
    return string_room(static_cast<size_t>(BN_num_bytes(number)) + 1);
}

// Writes a string; answers the bytes written.
int32_t sshkey_put_string(unsigned char* position, const void* bytes, uint32_t length);

// Writes a number; answers the bytes written, or -1 for a negative one, which a key never has.
int32_t sshkey_put_mpint(unsigned char* position, const BIGNUM* number);

}  // namespace quill
