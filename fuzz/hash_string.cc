// Stored hash strings of any text and any claimed length are verified or refused; no byte outside is read.
#include <cstdlib>
#include <cstring>
#include <string>

#include "quillsecurity.h"
#include "tests/fakes/world.h"

// Input: the claimed length (0 to 254, or 255 for the text's own), the secret's length, the secret, the
// stored text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    if (size < 2) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    const std::string secret = bytes.substr(0, data[1]);
    const std::string text(bytes.substr(secret.size()).c_str());
    char* stored = strdup(text.c_str());  // exactly its size, so that sanitizers see reads beyond it
    const auto given = data[0] == 255 ? static_cast<uint32_t>(text.size()) : data[0];
    const auto secret_length = static_cast<uint32_t>(secret.size());
    const uint32_t status = security_verify_shadowed_hash(secret.data(), secret_length, stored, given);
    if (status != SECURITY_OK && status != SECURITY_ERR_CRYPT && status != SECURITY_ERR_NO_CIPHER) abort();

    char* output = nullptr;
    uint32_t length = 0;
    const uint32_t decoded =
        security_verify_md5_hash_func(stored, given, secret.data(), secret_length, &output, &length);
    if (decoded != status || (output != nullptr) != (status == SECURITY_OK)) abort();
    free(output);
    free(stored);
    return 0;
}
