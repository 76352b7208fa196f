// Message digests by OpenSSL's names for them, with the context kept: setting one up costs several times what
// the digest of a secret does.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>

namespace quill {

// Half of a digest is enough to verify a secret, so none is left behind on the stack.
struct Digest {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;

    Digest() = default;
    ~Digest() { OPENSSL_cleanse(bytes, sizeof bytes); }
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;
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
    ~DigestText() { OPENSSL_cleanse(digits, sizeof digits); }
    DigestText(const DigestText&) = delete;
    DigestText& operator=(const DigestText&) = delete;
};

}  // namespace quill
