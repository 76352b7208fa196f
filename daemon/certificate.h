// Certificates and private keys in PEM form: reading them, and whether servers can use them.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>

#include "base/block.h"

namespace quill {

using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

// Return null for a text that is none, and for a key with a passphrase.
Certificate read_certificate(const char* text);
PrivateKey read_key(const char* text);

// Returns whether the key is that of the certificate.
bool belong_together(const Certificate& certificate, const PrivateKey& key);

// Returns 0, SECURITY_ERR_WEB_CERTIFICATE for null, SECURITY_ERR_WEB_EXPIRED, or SECURITY_ERR_WEB_WEAK for
// keys and signatures that servers refuse.
uint32_t check_certificate(const Certificate& certificate);

// Returns the same for the certificate, SECURITY_ERR_WEB_KEY if the key cannot be read, or
// SECURITY_ERR_WEB_MISMATCH if it belongs to another certificate.
uint32_t check_pair(const char* certificate_text, const char* key_text);

}  // namespace quill
