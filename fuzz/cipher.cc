// The reversible cipher: decrypting reverses encrypting and vice versa, with the built-in key and with any
// other, and no byte outside the text is accessed.
#include <cstdlib>
#include <cstring>
#include <string>

#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

std::string convert(decltype(vigenere_encrypt_func) function, const std::string& text,
                    const std::string& key) {
    const auto key_length = key.empty() ? 0 : static_cast<uint32_t>(key.size()) + 1;
    char* output = nullptr;
    uint32_t length = 0;
    if (function(text.c_str(), key.data(), key_length, &output, &length) != 0) abort();
    if (length != text.size() + 1 || strlen(output) != text.size()) abort();
    std::string result(output);
    free(output);
    return result;
}

uint32_t decrypt(const char* text, const char* key, uint32_t key_length, char** output, uint32_t* length) {
    return vigenere_decrypt_func(text, 0, key, key_length, output, length);
}

}  // namespace

// Input: the key's length, the key, the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    if (size == 0) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string key = bytes.substr(0, data[0]);
    const std::string text(bytes.substr(key.size()).c_str());
    if (convert(decrypt, convert(vigenere_encrypt_func, text, key), key) != text) abort();
    if (convert(vigenere_encrypt_func, convert(decrypt, text, key), key) != text) abort();
    return 0;
}
