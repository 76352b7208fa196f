// The reversible cipher (type 7): a Vigenere cipher over letters. It is obfuscation, not protection: it keeps
// passwords from being read by chance.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kBuiltInKey[] = "kplmoRtzacbnuyxiwegjhqvsdr";
constexpr uint32_t kFailed = 1;
constexpr int kAlphabet = 26;

// The current locale decides what a letter is. The tables of glibc cover signed characters.
bool is_letter(char c) { return isalpha(static_cast<signed char>(c)) != 0; }
int first_letter(char c) { return isupper(static_cast<signed char>(c)) != 0 ? 'A' : 'a'; }

int forward(char text, char key) { return (text - first_letter(text)) + (key - first_letter(key)); }
int backward(char text, char key) {
    return (first_letter(key) + kAlphabet - key) + (text - first_letter(text));
}

// Applies `shift` to each letter of a copy of `input`, which the caller owns. key_length counts the key's
// terminator, so its period is one less; 0 stands for the built-in key.
uint32_t vigenere(const char* input, const char* key, uint32_t key_length, int (*shift)(char, char),
                  char** output, uint32_t* output_length) {
    *output = nullptr;
    *output_length = 0;
    if (key_length == 0) {
        key = kBuiltInKey;
        key_length = sizeof kBuiltInKey;
    }
    if (key == nullptr || key_length < 2) return kFailed;  // no key letter
    char* text = strdup(input);
    if (text == nullptr) return kFailed;

    // Every character advances the key, not only letters.
    const uint32_t period = key_length - 1;
    const auto length = static_cast<uint32_t>(strlen(text));
    for (uint32_t i = 0; i < length; ++i) {
        const char k = key[i % period];
        if (!is_letter(text[i]) || !is_letter(k)) continue;
        text[i] = static_cast<char>(first_letter(text[i]) + shift(text[i], k) % kAlphabet);
    }
    *output = text;
    *output_length = length + 1;
    return SECURITY_OK;
}

}  // namespace
}  // namespace quill

uint32_t vigenere_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                               uint32_t* output_length) {
    return quill::vigenere(text, key, key_length, quill::forward, output, output_length);
}

// The input ends at its terminator; the length is not used.
uint32_t vigenere_decrypt_func(const char* input, uint32_t, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length) {
    return quill::vigenere(input, key, key_length, quill::backward, output, output_length);
}
