#include "daemon/certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "quillsecurity/status.h"

namespace quill {
namespace {

using Bio = std::unique_ptr<BIO, Release<BIO_free>>;

Bio reader(const char* text) { return Bio(BIO_new_mem_buf(text, -1)); }

// A key with a passphrase is refused: there is nobody to enter one.
int no_passphrase(char*, int, int, void*) { return -1; }

// Returns true for what servers refuse to serve: Debian's OpenSSL is at security level 2
// (SSL_CTX_set_security_level(3)). The signature of a self-signed certificate is not verified by anybody.
bool is_weak(X509* certificate) {
    constexpr int kBits = 112;
    int signature = 0;
    X509_get_signature_info(certificate, nullptr, nullptr, &signature, nullptr);
    const bool own = (X509_get_extension_flags(certificate) & EXFLAG_SS) != 0;
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    const bool weak =
        key == nullptr || EVP_PKEY_get_security_bits(key) < kBits || (!own && signature < kBits);
    ERR_clear_error();
    return weak;
}

}  // namespace

Certificate read_certificate(const char* text) {
    Certificate read(PEM_read_bio_X509(reader(text).get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    return read;
}

PrivateKey read_key(const char* text) {
    PrivateKey read(PEM_read_bio_PrivateKey(reader(text).get(), nullptr, no_passphrase, nullptr));
    ERR_clear_error();
    return read;
}

bool belong_together(const Certificate& certificate, const PrivateKey& key) {
    const bool match = X509_check_private_key(certificate.get(), key.get()) == 1;
    ERR_clear_error();
    return match;
}

uint32_t check_certificate(const Certificate& certificate) {
    if (certificate == nullptr) return SECURITY_ERR_WEB_CERTIFICATE;
    const bool current = X509_cmp_time(X509_get0_notAfter(certificate.get()), nullptr) > 0;
    if (!current) return SECURITY_ERR_WEB_EXPIRED;
    return is_weak(certificate.get()) ? SECURITY_ERR_WEB_WEAK : SECURITY_OK;
}

uint32_t check_pair(const char* certificate_text, const char* key_text) {
    const Certificate certificate = read_certificate(certificate_text);
    const uint32_t status = check_certificate(certificate);
    if (status != SECURITY_OK) return status;
    const PrivateKey key = read_key(key_text);
    if (key == nullptr) return SECURITY_ERR_WEB_KEY;
    return belong_together(certificate, key) ? SECURITY_OK : SECURITY_ERR_WEB_MISMATCH;
}

}  // namespace quill
