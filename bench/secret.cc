// How long do hashing, verifying and encoding a secret take, compared with OpenSSL and libc alone? Run with
// QUILL_TRACE=off: each digest writes twenty traces.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace {

constexpr char kSecret[] = "0123456789abcdef";
constexpr uint32_t kLength = sizeof kSecret - 1;
constexpr char kSalt[] = "deadbeef";

// The floor: the digest alone, with digest and context looked up and allocated once.
void openssl_md5(benchmark::State& state) {
    const EVP_MD* digest = EVP_get_digestbyname("md5");
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    unsigned char bytes[EVP_MAX_MD_SIZE];
    EVP_DigestInit_ex(context, digest, nullptr);
    for (auto _ : state) {
        EVP_DigestInit_ex(context, nullptr, nullptr);
        EVP_DigestUpdate(context, kSecret, kLength);
        EVP_DigestUpdate(context, kSalt, 8);
        EVP_DigestUpdate(context, kSecret, kLength);
        EVP_DigestFinal_ex(context, bytes, nullptr);
        benchmark::DoNotOptimize(bytes);
    }
    EVP_MD_CTX_free(context);
}
BENCHMARK(openssl_md5);

void calculate_hash(benchmark::State& state) {
    char area[1024];
    uint32_t length;
    for (auto _ : state) {
        security_calculate_hash(kSecret, kLength, kSalt, 8, area, &length, "md5");
        benchmark::DoNotOptimize(area);
    }
}
BENCHMARK(calculate_hash);

void verify_hash_string(benchmark::State& state) {
    char area[2048] = "";
    uint32_t length;
    security_calculate_md5_shadowed_hash(kSecret, kLength, area, &length);
    area[length] = '\0';
    for (auto _ : state)
        benchmark::DoNotOptimize(security_verify_shadowed_hash(kSecret, kLength, area, length));
}
BENCHMARK(verify_hash_string);

void duplicate(benchmark::State& state) {
    for (auto _ : state) free(strdup(kSecret));
}
BENCHMARK(duplicate);

void encrypt(benchmark::State& state) {
    for (auto _ : state) {
        char* output;
        uint32_t length;
        security_conf_encrypt(kSecret, SECURITY_ENCRYPTION_CIPHER, nullptr, 0, &output, &length);
        free(output);
    }
}
BENCHMARK(encrypt);

}  // namespace
