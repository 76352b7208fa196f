// Message digests by OpenSSL's names. The context is kept between uses: creating one takes several times as
// long as the digest of a secret.
#pragma once

#include <openssl/evp.h>

#include <cstdint>

#include "base/wiped.h"

namespace quill {

// A digest and its length in bytes. Wiped: half of a digest is enough to verify a secret.
struct DigestBytes {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length;
};
using Digest = Wiped<DigestBytes>;

struct Part {
    const char* bytes;
    uint32_t length;
};

// Makes the digest of this name the current one. Returns false if OpenSSL has none.
bool select_digest(const char* name);

// Computes the current digest over the concatenation of the three parts. Returns false if OpenSSL failed.
bool digest_of(Part first, Part second, Part third, Digest& digest);

// A digest as lower-case hexadecimal digits, terminated.
struct DigestDigits {
    char digits[2 * EVP_MAX_MD_SIZE + 1];
};
struct DigestText : Wiped<DigestDigits> {
    explicit DigestText(const Digest& digest);
};

}  // namespace quill
