// Salted hashes of secrets: "$TYPE$SALT$DIGEST", the digest over secret, salt and secret again.
//
// Only the first half of the digest's hexadecimal digits is stored and verified, 16 digits for MD5 and 20 for
// SHA-1: the length of the digest in bytes is used as the length of its text. Stored secrets depend on it.
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "library/common/trace.h"
#include "library/secret/digest.h"
#include "quillplatform/random.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kDigestText = 1024;    // bytes of a buffer for a digest's text
constexpr size_t kEncoderBlock = 2048;  // more than "$1$", a salt, "$" and such a buffer
constexpr int32_t kLongestSalt = 64;
constexpr size_t kDigestName = 8;

struct DigestTextBuffer {
    char text[kDigestText];
};

void trace_digest(const char* name, const Digest& digest, const char* text) {
    if (!history_wanted() && !debug_wanted()) return;  // once, not for each byte
    trace("%s Digest is: ", name);
    for (unsigned int i = 0; i < digest.length; ++i) trace("%02x", static_cast<uint32_t>(digest.bytes[i]));
    trace("\n");
    trace("md5 hash_len:%d", digest.length);  // "md5" for every digest: existing logs have it so
    trace("md5 hash_data(hex):%s", text);
}

// Returns a seed for srandom(3).
uint32_t seed() {
    timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) == 0) return static_cast<uint32_t>(now.tv_nsec);
    return static_cast<uint32_t>(time(nullptr)) + static_cast<uint32_t>(getpid());
}

// The parts of a stored hash string. The pointers point into its text.
struct HashString {
    char digest_name[kDigestName];
    const char* salt;
    uint32_t salt_length;
    const char* digest;
    uint32_t digest_length;
    bool lengths_match;  // the lengths of the parts add up to the length given by the caller
};

// Splits a stored hash string. Returns SECURITY_ERR_CRYPT for a text that is none. A string whose lengths do
// not match is still split: verifying it writes the same traces before it fails.
uint32_t parse(const char* stored, uint32_t stored_length, HashString& parts) {
    const auto length = static_cast<uint32_t>(stored == nullptr ? 0 : strlen(stored));
    if (std::min(length, stored_length) < 3) return SECURITY_ERR_CRYPT;

    char* end;
    const long number = strtol(stored + 1, &end, 10);
    const auto type = static_cast<int32_t>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
    trace("%s(%d): digest_type:%d ", "security_verify_shadowed_hash", 518, type);
    if (security_get_digest_name_from_encryption_type(parts.digest_name, type) == nullptr)
        return SECURITY_ERR_CRYPT;
    trace("%s(%d) Digest is:%s", "security_verify_shadowed_hash", 523, parts.digest_name);

    if (*end == '\0') return SECURITY_ERR_CRYPT;
    parts.salt = end + 1;
    const char* separator = strchr(parts.salt, '$');
    if (separator == nullptr || separator[1] == '\0') return SECURITY_ERR_CRYPT;
    parts.digest = separator + 1;
    parts.digest_length = static_cast<uint32_t>(strlen(parts.digest));

    // The length of the salt is computed from the length given by the caller, for a type of one digit.
    const int64_t salt_length = static_cast<int64_t>(stored_length) - parts.digest_length - 4;
    parts.lengths_match = salt_length >= 0 && salt_length <= stored + length - parts.salt;
    parts.salt_length = parts.lengths_match ? static_cast<uint32_t>(salt_length) : 0;
    return SECURITY_OK;
}

}  // namespace
}  // namespace quill

void security_ltoa(char* output, char radix, uint32_t value) {
    const uint32_t base = radix == 'x' ? 16 : 10;
    char* end = output;
    do {
        *end++ = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    *end = '\0';
    std::reverse(output, end);
}

uint32_t security_gen_salt(char* output, int32_t* length) {
    srandom(quill::seed());
    const uint32_t number = TRAL_random();
    if (*length > quill::kLongestSalt) {
        quill::trace("security salt-generation error");
        return SECURITY_ERR_CRYPT;
    }
    if (*length >= 1) {  // not used: the salt has as many digits as its number
        *length = 0;
        return security_gen_fix_len_salt(output, length);
    }
    security_ltoa(output, 'x', number);
    *length = static_cast<int32_t>(strlen(output));
    return SECURITY_OK;
}

uint32_t security_gen_fix_len_salt(char* output, int32_t* length) {
    return security_gen_salt(output, length);
}

uint32_t security_calculate_hash(const char* secret, uint32_t secret_length, const char* salt,
                                 uint32_t salt_length, char* output, uint32_t* output_length,
                                 const char* digest_name) {
    using namespace quill;
    if (!select_digest(digest_name)) {
        trace("Unknown message digest %s\n", digest_name);
        return SECURITY_ERR_NO_CIPHER;
    }
    Digest digest;
    if (!digest_of({secret, secret_length}, {salt, salt_length}, {secret, secret_length}, digest))
        return SECURITY_ERR_CRYPT;
    const DigestText text(digest);
    trace_digest(digest_name, digest, text.digits);
    strncpy(output, text.digits, kDigestText);
    *output_length = digest.length;
    return SECURITY_OK;
}

uint32_t security_calculate_md5_shadowed_hash(const char* secret, uint32_t secret_length, char* output,
                                              uint32_t* output_length) {
    memcpy(output, "$1$", 3);
    char* salt = output + 3;
    int32_t salt_length = 0;
    uint32_t status = security_gen_salt(salt, &salt_length);
    if (status != SECURITY_OK) return status;
    salt[salt_length] = '$';
    uint32_t digest_length = 0;
    status = security_calculate_hash(secret, secret_length, salt, static_cast<uint32_t>(salt_length),
                                     salt + salt_length + 1, &digest_length, "md5");
    // Counts half of the digest's digits, see above.
    *output_length = digest_length + 4 + static_cast<uint32_t>(salt_length);
    return status;
}

uint32_t security_md5_encrypt_func(const char* text, const char*, uint32_t, char** output,
                                   uint32_t* output_length) {
    *output = static_cast<char*>(calloc(1, quill::kEncoderBlock));
    if (*output == nullptr) return SECURITY_ERR_CRYPT;
    const uint32_t status = security_calculate_md5_shadowed_hash(text, static_cast<uint32_t>(strlen(text)),
                                                                 *output, output_length);
    if (status != SECURITY_OK) {
        free(*output);
        *output = nullptr;
    }
    return status;
}

char* security_get_digest_name_from_encryption_type(char* name, int32_t digest_type) {
    name[0] = '\0';
    switch (digest_type) {
    case 0:
        return strcpy(name, "none");
    case 1:
        return strncpy(name, "md5", quill::kDigestName);
    case 3:
        return strcpy(name, "sha1");
    }
    return nullptr;
}

uint32_t security_verify_hash(const char* secret, uint32_t secret_length, const char* salt,
                              uint32_t salt_length, const char* expected, uint32_t expected_length,
                              const char* digest_name) {
    quill::Wiped<quill::DigestTextBuffer> computed;
    uint32_t digest_length = 0;
    const uint32_t status = security_calculate_hash(secret, secret_length, salt, salt_length, computed.text,
                                                    &digest_length, digest_name);
    if (status != SECURITY_OK) return status;
    if (digest_length != expected_length || strnlen(expected, expected_length) != expected_length)
        return SECURITY_ERR_CRYPT;
    // In constant time: the caller must not learn how many digits match.
    return CRYPTO_memcmp(expected, computed.text, expected_length) == 0 ? SECURITY_OK : SECURITY_ERR_CRYPT;
}

uint32_t security_verify_shadowed_hash(const char* secret, uint32_t secret_length, const char* stored,
                                       uint32_t stored_length) {
    quill::HashString parts;
    uint32_t status = quill::parse(stored, stored_length, parts);
    if (status != SECURITY_OK) return status;
    status = security_verify_hash(secret, secret_length, parts.salt, parts.salt_length, parts.digest,
                                  parts.digest_length, parts.digest_name);
    return status == SECURITY_OK && !parts.lengths_match ? SECURITY_ERR_CRYPT : status;
}

uint32_t security_verify_md5_hash_func(const char* stored, uint32_t stored_length, const char* candidate,
                                       uint32_t candidate_length, char** output, uint32_t* output_length) {
    *output = nullptr;
    const uint32_t status = security_verify_shadowed_hash(candidate, candidate_length, stored, stored_length);
    if (status != SECURITY_OK) return status;
    *output = static_cast<char*>(malloc(candidate_length));
    if (*output == nullptr) return SECURITY_ERR_CRYPT;
    if (candidate_length != 0) memcpy(*output, candidate, candidate_length);
    *output_length = candidate_length;
    return SECURITY_OK;
}
