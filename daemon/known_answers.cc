#include "daemon/known_answers.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/block.h"
#include "quillsecurity/notify.h"

namespace quill {
namespace {

using Bytes = std::vector<unsigned char>;

template <class Object, void (*release)(Object*)>
using Owned = std::unique_ptr<Object, Release<release>>;

Bytes from_hex(const char* text) {
    Bytes bytes(strlen(text) / 2);
    size_t length = 0;
    if (OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &length, text, '\0') != 1) bytes.clear();
    return bytes;
}

bool digest_is(const EVP_MD* kind, const char* text, const char* expected) {
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    if (EVP_Digest(text, strlen(text), digest.data(), &length, kind, nullptr) != 1) return false;
    digest.resize(length);
    return digest == from_hex(expected);
}

// FIPS 180-4, the example of one block.
bool sha1() { return digest_is(EVP_sha1(), "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"); }

bool sha256() {
    return digest_is(EVP_sha256(), "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

bool sha512() {
    return digest_is(EVP_sha512(), "abc",
                     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

// RFC 4231, test case 2.
bool hmac() {
    constexpr char kText[] = "what do ya want for nothing?";
    Bytes code(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    if (HMAC(EVP_sha256(), "Jefe", 4, reinterpret_cast<const unsigned char*>(kText), strlen(kText),
             code.data(), &length) == nullptr)
        return false;
    code.resize(length);
    return code == from_hex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

using CipherContext = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

// Encrypts or decrypts the input. With `tag`, encrypting sets it and decrypting verifies it. Returns an empty
// result on failure.
Bytes ciphered(const EVP_CIPHER* kind, bool encrypt, const Bytes& key, const Bytes& vector,
               const Bytes& input, Bytes* tag = nullptr) {
    const CipherContext context(EVP_CIPHER_CTX_new());
    Bytes output(input.size() + EVP_MAX_BLOCK_LENGTH);
    int length = 0;
    int rest = 0;
    if (context == nullptr ||
        EVP_CipherInit_ex(context.get(), kind, nullptr, key.data(), vector.data(), encrypt ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1)
        return {};
    if (tag != nullptr && !encrypt &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag->size()),
                            tag->data()) != 1)
        return {};
    if (EVP_CipherUpdate(context.get(), output.data(), &length, input.data(),
                         static_cast<int>(input.size())) != 1 ||
        EVP_CipherFinal_ex(context.get(), output.data() + length, &rest) != 1)
        return {};
    if (tag != nullptr && encrypt &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag->size()),
                            tag->data()) != 1)
        return {};
    output.resize(static_cast<size_t>(length) + static_cast<size_t>(rest));
    return output;
}

// SP 800-38A, F.2.1 and F.2.2, first block.
bool cbc() {
    const Bytes key = from_hex("2b7e151628aed2a6abf7158809cf4f3c");
    const Bytes vector = from_hex("000102030405060708090a0b0c0d0e0f");
    const Bytes plain = from_hex("6bc1bee22e409f96e93d7e117393172a");
    const Bytes cipher = from_hex("7649abac8119b246cee98e9b12e9197d");
    return ciphered(EVP_aes_128_cbc(), true, key, vector, plain) == cipher &&
           ciphered(EVP_aes_128_cbc(), false, key, vector, cipher) == plain;
}

// Test case 14 of the GCM submission; a wrong tag must be refused.
bool gcm() {
    const Bytes key(32);
    const Bytes vector(12);
    const Bytes plain(16);
    const Bytes cipher = from_hex("cea7403d4d606b6e074ec5d3baf39d18");
    Bytes tag(16);
    if (ciphered(EVP_aes_256_gcm(), true, key, vector, plain, &tag) != cipher ||
        tag != from_hex("d0d1c8a799996bf0265b98b5d48ab919") ||
        ciphered(EVP_aes_256_gcm(), false, key, vector, cipher, &tag) != plain)
        return false;
    tag[0] ^= 1;
    return ciphered(EVP_aes_256_gcm(), false, key, vector, cipher, &tag).empty();
}

using PublicKey = Owned<EVP_PKEY, EVP_PKEY_free>;

PublicKey p256_key(const char* point) {
    Bytes bytes = from_hex(point);
    char group[] = "P-256";
    OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, bytes.data(), bytes.size()),
        OSSL_PARAM_construct_end()};
    const Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (context == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters) != 1)
        return nullptr;
    return PublicKey(key);
}

bool verifies(EVP_PKEY* key, const std::string& text, const Bytes& signature) {
    const Owned<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
    return context != nullptr &&
           EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                            reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1;
}

// RFC 6979, A.2.5: the signature of "sample" with SHA-256, as DER; it must not verify another text.
bool ecdsa() {
    const PublicKey key = p256_key(
        "0460fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
        "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299");
    const Bytes signature = from_hex(
        "3046022100efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
        "022100f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8");
    return key != nullptr && verifies(key.get(), "sample", signature) &&
           !verifies(key.get(), "simple", signature);
}

constexpr KnownAnswer kKnownAnswers[] = {
    {SECURITY_SELF_TEST_SHA1, sha1},     {SECURITY_SELF_TEST_SHA256, sha256},
    {SECURITY_SELF_TEST_SHA512, sha512}, {SECURITY_SELF_TEST_HMAC, hmac},
    {SECURITY_SELF_TEST_CBC, cbc},       {SECURITY_SELF_TEST_GCM, gcm},
    {SECURITY_SELF_TEST_ECDSA, ecdsa},
};
static_assert(std::size(kKnownAnswers) <= std::size(security_self_test_results{}.entries));

}  // namespace

std::span<const KnownAnswer> known_answers() { return kKnownAnswers; }

}  // namespace quill
