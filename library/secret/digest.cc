#include "library/secret/digest.h"

namespace quill {
namespace {

// The digest selected last and its context, which holds no secret between uses. Not freed at exit, since
// OpenSSL may have been shut down before.
const EVP_MD* current_type;
EVP_MD_CTX* current;

EVP_MD_CTX* new_context(const EVP_MD* type) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context != nullptr && EVP_DigestInit_ex(context, type, nullptr) == 1) return context;
    EVP_MD_CTX_free(context);
    return nullptr;
}

}  // namespace

bool select_digest(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    const EVP_MD* type = EVP_get_digestbyname(name);  // registers all digests first
    if (type == nullptr) return false;
    if (type == current_type && current != nullptr) return true;
    EVP_MD_CTX_free(current);
    current = new_context(type);
    current_type = type;
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
