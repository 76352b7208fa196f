// Message digests by OpenSSL's names for them, with the context kept: setting one up costs several times what
// the digest of a secret does.
#pragma once

#include <openssl/evp.h>

#include <cstdint>

namespace quill {

struct Digest {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
};

struct Part {
    const char* bytes;
    uint32_t length;
};

// Whether OpenSSL has a digest of this name. Makes it the current one.
bool select_digest(const char* name);

// The current digest over the three parts; false when OpenSSL failed.
bool digest_of(Part first, Part second, Part third, Digest& digest);

// Lower-case hexadecimal digits of a digest, terminated.
struct DigestText {
    char digits[2 * EVP_MAX_MD_SIZE + 1];
    explicit DigestText(const Digest& digest);
};

}  // namespace quill
