// Encoding and decoding of secrets by type, and the encoding of type 0, clear text.
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

const encryption_func_entry encryption_func_table[] = {
    {SECURITY_ENCRYPTION_CIPHER, vigenere_encrypt_func},
    {SECURITY_ENCRYPTION_CLEAR, no_encrypt_func},
    {SECURITY_ENCRYPTION_HASH, security_md5_encrypt_func},
};
const int32_t encryption_func_table_size = sizeof encryption_func_table / sizeof *encryption_func_table;

const decryption_func_entry decryption_func_table[] = {
    {SECURITY_ENCRYPTION_CIPHER, vigenere_decrypt_func},
    {SECURITY_ENCRYPTION_CLEAR, no_decrypt_func},
    {SECURITY_ENCRYPTION_HASH, security_verify_md5_hash_func},
};
const int32_t decryption_func_table_size = sizeof decryption_func_table / sizeof *decryption_func_table;

namespace quill {
namespace {

constexpr uint32_t kOutOfMemory = 1;

// Calls the function in the table's first row of this type.
template <class Entry, class... Args>
uint32_t dispatch(const Entry* table, int32_t size, uint32_t type, Args... args) {
    for (const Entry* row = table; row < table + size; ++row)
        if (row->type == type) return row->function(args...);
    return SECURITY_ERR_NO_CIPHER;
}

// Passes the block, null if memory ran out, to the caller.
uint32_t set_output(char* block, uint32_t length, char** output, uint32_t* output_length) {
    *output = block;
    *output_length = block == nullptr ? 0 : length;
    return block == nullptr ? kOutOfMemory : SECURITY_OK;
}

}  // namespace
}  // namespace quill

uint32_t security_conf_encrypt(const char* text, uint32_t type, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length) {
    return quill::dispatch(encryption_func_table, encryption_func_table_size, type, text, key, key_length,
                           output, output_length);
}

uint32_t security_conf_decrypt(const char* input, uint32_t input_length, uint32_t type, const char* key,
                               uint32_t key_length, char** output, uint32_t* output_length) {
    return quill::dispatch(decryption_func_table, decryption_func_table_size, type, input, input_length, key,
                           key_length, output, output_length);
}

uint32_t no_encrypt_func(const char* text, const char*, uint32_t, char** output, uint32_t* output_length) {
    return quill::set_output(strdup(text), static_cast<uint32_t>(strlen(text)) + 1, output, output_length);
}

uint32_t no_decrypt_func(const char* input, uint32_t input_length, const char*, uint32_t, char** output,
                         uint32_t* output_length) {
    auto* block = static_cast<char*>(malloc(input_length));
    if (block != nullptr && input_length != 0) memcpy(block, input, input_length);
    return quill::set_output(block, input_length, output, output_length);
}
