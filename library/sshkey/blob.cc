#include "library/sshkey/blob.h"

#include <cstring>

#include "base/byte_order.h"

namespace quill {
namespace {

void put_length(unsigned char* position, uint32_t length) {
    flip(length);
    memcpy(position, &length, sizeof length);
}

}  // namespace

int32_t sshkey_put_string(unsigned char* position, const void* bytes, uint32_t length) {
    put_length(position, length);
    if (length != 0) memcpy(position + sizeof length, bytes, length);
    return static_cast<int32_t>(string_size(length));
}

// An mpint is signed (RFC 4251 section 5): a magnitude whose top bit is set gets a zero byte in front. Zero
// has no bytes.
int32_t sshkey_put_mpint(unsigned char* position, const BIGNUM* number) {
    if (BN_is_negative(number) != 0) return -1;
    const auto length = static_cast<uint32_t>(BN_num_bytes(number));
    const uint32_t sign = length != 0 && BN_num_bits(number) % 8 == 0 ? 1 : 0;
    put_length(position, sign + length);
    unsigned char* magnitude = position + sizeof length;
    if (sign != 0) *magnitude++ = 0;
    if (static_cast<uint32_t>(BN_bn2bin(number, magnitude)) != length) return -1;
    return static_cast<int32_t>(string_size(sign + length));
}

}  // namespace quill
