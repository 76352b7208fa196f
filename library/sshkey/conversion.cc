// Conversion of keys of any format to one line of OpenSSH text.
//
// The types RSA and DSA are deprecated since OpenSSL 3.0. They are used here, without the warnings, because
// every release since 0.9.8 has them.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <span>

#include "base/text_field.h"
#include "library/sshkey/blob.h"
#include "library/sshkey/keygen.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr int kOneLineKey = 2100;      // bytes of an imported line, terminator included
constexpr size_t kEncodedBlob = 2100;  // bytes of a blob in base64, terminator included

using PublicKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using RsaKey = std::unique_ptr<RSA, Release<RSA_free>>;
using DsaKey = std::unique_ptr<DSA, Release<DSA_free>>;

uint32_t copy_line(ssh_key_new_rec& source, ssh_key_rec& target) {
    size_t length = strlen(source.key_text);
    if (length != 0 && source.key_text[length - 1] == '\n') --length;
    if (length >= sizeof target.key_text) return SECURITY_ERR_SSHKEY_CONVERT;
    source.key_text[length] = '\0';
    memcpy(target.key_text, source.key_text, length + 1);
    return SECURITY_OK;
}

uint32_t import_ssh2(const ssh_key_new_rec& source, ssh_key_rec& target) {
    const KeygenLock lock;
    if (!write_temporary_key(source.key_text) || !run_keygen("-i", kTemporaryKey))
        return SECURITY_ERR_SSHKEY_CONVERT;
    const TemporaryKeyRemover remover;
    const File output = open_key_file(kKeygenOutput);
    if (!output) return SECURITY_ERR_SSHKEY_CONVERT;
    // If nothing was imported the target is unchanged; callers check the text, not the status.
    static_cast<void>(fgets(target.key_text, kOneLineKey, output.get()));
    remove_keygen_output();
    return SECURITY_OK;
}

// Returns the public key of the first certificate in the text, or null.
PublicKey certified_key(const char* text) {
    const KeygenLock lock;
    if (!write_temporary_key(text)) return nullptr;
    const TemporaryKeyRemover remover;
    const File file = open_key_file(kTemporaryKey);
    if (!file) return nullptr;
    const Certificate certificate = find_certificate(file.get());
    return PublicKey(certificate ? X509_get_pubkey(certificate.get()) : nullptr);
}

// The largest estimate that may still fit, since each number can be a byte shorter than estimated.
constexpr size_t kMaxBlob = kEncodedBlob / 4 * 3 + 4;

struct Blob {
    unsigned char bytes[kMaxBlob];
    size_t size = 0;
};

// Encodes the name of the type and the numbers. Returns an empty blob if a number is missing or negative, or
// if they do not fit.
Blob blob_of(const char* type, std::span<const BIGNUM* const> numbers) {
    const auto type_length = static_cast<uint32_t>(strlen(type));
    size_t max_size = string_size(type_length);
    for (const BIGNUM* number : numbers) {
        if (number == nullptr) return {};
        max_size += max_mpint_size(number);
    }
    Blob blob;
    if (max_size > sizeof blob.bytes) return {};
    auto written = static_cast<size_t>(sshkey_put_string(blob.bytes, type, type_length));
    for (const BIGNUM* number : numbers) {
        const int32_t added = sshkey_put_mpint(blob.bytes + written, number);
        if (added < 0) return {};
        written += static_cast<size_t>(added);
    }
    blob.size = written;
    return blob;
}

constexpr char kRsa[] = "ssh-rsa";
constexpr char kDsa[] = "ssh-dss";

Blob rsa_blob(EVP_PKEY* key) {
    const RsaKey rsa(EVP_PKEY_get1_RSA(key));
    if (!rsa) return {};
    const BIGNUM* const numbers[] = {RSA_get0_e(rsa.get()), RSA_get0_n(rsa.get())};
    return blob_of(kRsa, numbers);
}

Blob dsa_blob(EVP_PKEY* key) {
    const DsaKey dsa(EVP_PKEY_get1_DSA(key));
    if (!dsa) return {};
    const BIGNUM* const numbers[] = {DSA_get0_p(dsa.get()), DSA_get0_q(dsa.get()), DSA_get0_g(dsa.get()),
                                     DSA_get0_pub_key(dsa.get())};
    return blob_of(kDsa, numbers);
}

// Writes the line of a type and a blob. Returns false for a blob that is empty or too long.
bool write_line(const char* type, const Blob& blob, ssh_key_rec& target) {
    const size_t encoded = (blob.size + 2) / 3 * 4;
    if (blob.size == 0 || encoded >= kEncodedBlob) return false;
    const auto start = static_cast<size_t>(snprintf(target.key_text, sizeof target.key_text, "%s ", type));
    static_assert(sizeof kRsa + kEncodedBlob < sizeof target.key_text);
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(target.key_text) + start, blob.bytes,
                    static_cast<int>(blob.size));
    return true;
}

uint32_t convert_certificate(const ssh_key_new_rec& source, ssh_key_rec& target) {
    const OpensslErrorScope quiet;
    const PublicKey key = certified_key(source.key_text);
    const int type = key ? EVP_PKEY_get_base_id(key.get()) : EVP_PKEY_NONE;
    const bool written = (type == EVP_PKEY_RSA && write_line(kRsa, rsa_blob(key.get()), target)) ||
                         (type == EVP_PKEY_DSA && write_line(kDsa, dsa_blob(key.get()), target));
    return written ? SECURITY_OK : SECURITY_ERR_SSHKEY_CONVERT;
}

uint32_t convert(ssh_key_new_rec& source, ssh_key_rec& target) {
    switch (source.key_format) {
    case SSHKEY_FMT_SSH2:
        return import_ssh2(source, target);
    case SSHKEY_FMT_X509_PEM:
        return convert_certificate(source, target);
    default:
        return copy_line(source, target);
    }
}

}  // namespace
}  // namespace quill

uint32_t convert_other_ssh_key_to_openssh(ssh_key_new_rec* source, ssh_key_rec* target) {
    using namespace quill;
    if (source == nullptr || source->key_format == SSHKEY_FMT_OPENSSH) return SECURITY_ERR_SSHKEY_CONVERT;
    if (source->key_format > SSHKEY_FMT_X509V3_SIGN_RSA) return SECURITY_ERR_SSHKEY_FORMAT;
    if (!terminated(source->user_name) || !terminated(source->key_text)) return SECURITY_ERR_SSHKEY_CONVERT;
    if (holds_private_key(std::string_view(source->key_text))) return SECURITY_ERR_SSHKEY_FORMAT;
    const uint32_t status = convert(*source, *target);
    if (status == SECURITY_OK) memcpy(target->user_name, source->user_name, sizeof target->user_name);
    return status;
}
