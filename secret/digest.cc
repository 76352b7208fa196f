#include "secret/digest.h"

#include <cstring>

namespace quill {
namespace {

// The digest used last. Between uses its context holds what it computed last, and no secret. It is never
// freed at exit, where OpenSSL may have ended before.
struct Current {
    char name[32] = "";
    EVP_MD_CTX* context = nullptr;

    void set(EVP_MD_CTX* other) {
        EVP_MD_CTX_free(context);
        context = other;
    }
} current;

}  // namespace

bool select_digest(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    if (strcmp(name, current.name) == 0) return true;
    OpenSSL_add_all_digests();
    const EVP_MD* kind = EVP_get_digestbyname(name);
    if (kind == nullptr) return false;
    current.name[0] = '\0';
    current.set(EVP_MD_CTX_new());
    if (current.context == nullptr || EVP_DigestInit_ex(current.context, kind, nullptr) != 1)
        current.set(nullptr);
    // A name that does not fit, or a context that could not be had, is looked up again the next time.
    else if (strlen(name) < sizeof current.name)
        strcpy(current.name, name);
    return true;
}

bool digest_of(Part first, Part second, Part third, Digest& digest) {
    EVP_MD_CTX* context = current.context;
    return context != nullptr && EVP_DigestInit_ex(context, nullptr, nullptr) == 1 &&
           EVP_DigestUpdate(context, first.bytes, first.length) == 1 &&
           EVP_DigestUpdate(context, second.bytes, second.length) == 1 &&
           EVP_DigestUpdate(context, third.bytes, third.length) == 1 &&
           EVP_DigestFinal_ex(context, digest.bytes, &digest.length) == 1;
}

DigestText::DigestText(const Digest& digest) {
    constexpr char kDigits[] = "0123456789abcdef";
    char* at = digits;
    for (unsigned int i = 0; i < digest.length; ++i) {
        *at++ = kDigits[digest.bytes[i] >> 4];
        *at++ = kDigits[digest.bytes[i] & 15];
    }
    *at = '\0';
}

}  // namespace quill
