#include "secret/digest.h"

namespace quill {
namespace {

// Of the digest used last. Between uses the context holds what it computed last, and no secret. It is never
// freed at exit, where OpenSSL may have ended before.
const EVP_MD* current_kind;
EVP_MD_CTX* current;

EVP_MD_CTX* context_of(const EVP_MD* kind) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context != nullptr && EVP_DigestInit_ex(context, kind, nullptr) == 1) return context;
    EVP_MD_CTX_free(context);
    return nullptr;
}

}  // namespace

bool select_digest(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    const EVP_MD* kind = EVP_get_digestbyname(name);  // which makes all of them known first
    if (kind == nullptr) return false;
    if (kind == current_kind && current != nullptr) return true;
    EVP_MD_CTX_free(current);
    current = context_of(kind);
    current_kind = kind;
    return true;
}

bool digest_of(Part first, Part second, Part third, Digest& digest) {
    EVP_MD_CTX* context = current;
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
