// Encodings by type, and the reversible cipher letter by letter.
#include <clocale>
#include <cstring>
#include <random>

#include "tests/fakes/library_test.h"

namespace {

using Encodings = LibraryTest;

struct Output {
    char* block = nullptr;
    uint32_t length = 0;
    ~Output() { free(block); }
    std::string bytes() const { return block == nullptr ? "" : std::string(block, length); }
};

// Returns the cipher text without its terminator, which the length must include.
std::string encoded(const std::string& text, const char* key = nullptr, uint32_t key_length = 0) {
    Output output;
    EXPECT_EQ(0u, vigenere_encrypt_func(text.c_str(), key, key_length, &output.block, &output.length));
    EXPECT_EQ(text.size() + 1, output.length);
    EXPECT_EQ('\0', output.block[text.size()]);
    return output.block;
}

std::string decoded(const std::string& text, const char* key = nullptr, uint32_t key_length = 0) {
    Output output;
    // The length is wrong: it is not used.
    EXPECT_EQ(0u, vigenere_decrypt_func(text.c_str(), 1, key, key_length, &output.block, &output.length));
    EXPECT_EQ(text.size() + 1, output.length);
    return output.block;
}

// Computed by hand: k=10 p=15 l=11 m=12 o=14 R=17.
TEST_F(Encodings, CipherShiftsLettersByTheKey) {
    const struct {
        const char *text, *key, *want;
    } cases[] = {
        {"abc", nullptr, "kqn"},
        {"a1a", nullptr, "k1l"},  // a digit advances the key
        {"a a", nullptr, "k l"},  // so does a blank
        {"AbC", nullptr, "KqN"},  // the text's case is kept
        {"Z", "b", "A"},
        {"Z", "B", "A"},
        {"z", "b", "a"},
        {"aaaaa", "bc", "bcbcb"},  // the key repeats after its last letter
        {"aaaaaaaaaaaaaaaaaaaaaaaaaaaa", nullptr, "kplmortzacbnuyxiwegjhqvsdrkp"},
        {"zz", "1b", "za"},  // a key character that is not a letter shifts nothing
        {"", nullptr, ""},
        {"\xe9t\xe9", nullptr, "\xe9i\xe9"},  // in the C locale these bytes are not letters
    };
    for (const auto& c : cases) {
        const uint32_t length = c.key == nullptr ? 0 : static_cast<uint32_t>(strlen(c.key)) + 1;
        EXPECT_EQ(c.want, encoded(c.text, c.key, length)) << c.text;
        EXPECT_EQ(c.text, decoded(c.want, c.key, length)) << c.want;
    }
}

TEST_F(Encodings, CipherRefusesKeysWithoutALetterToTake) {
    for (const auto& [key, length] : {std::pair<const char*, uint32_t>{"k", 1}, {nullptr, 5}}) {
        Output output{reinterpret_cast<char*>(1), 9};
        EXPECT_EQ(1u, vigenere_encrypt_func("abc", key, length, &output.block, &output.length));
        EXPECT_EQ(nullptr, output.block);
    }
}

// Decoding restores any text in the C locale and in a UTF-8 locale.
TEST_F(Encodings, CipherDecodesWhatItEncoded) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> byte(1, 255), length(0, 200);
    for (const char* locale : {"C", "C.UTF-8"}) {
        ASSERT_NE(nullptr, setlocale(LC_ALL, locale));
        for (int round = 0; round < 2000; ++round) {
            std::string text(static_cast<size_t>(length(random)), 'x');
            for (char& c : text) c = static_cast<char>(byte(random));
            ASSERT_EQ(text, decoded(encoded(text))) << locale;
        }
    }
    setlocale(LC_ALL, "C");
}

TEST_F(Encodings, TypesAreLookedUpInTheTables) {
    ASSERT_EQ(3, encryption_func_table_size);
    ASSERT_EQ(3, decryption_func_table_size);
    const uint32_t types[] = {7, 0, 1};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(types[i], encryption_func_table[i].type);
        EXPECT_EQ(types[i], decryption_func_table[i].type);
    }
    const struct {
        uint32_t type, want;
        std::string cipher, clear;
    } cases[] = {
        {7, 0, {"kqn", 4}, {"abc", 4}}, {0, 0, {"abc", 4}, {"kqn", 3}}, {2, 0x404a0008, "", ""},
        {3, 0x404a0008, "", ""},        {100, 0x404a0008, "", ""},
    };
    for (const auto& c : cases) {
        Output cipher, clear;
        EXPECT_EQ(c.want, security_conf_encrypt("abc", c.type, nullptr, 0, &cipher.block, &cipher.length));
        EXPECT_EQ(c.cipher, cipher.bytes()) << c.type;
        EXPECT_EQ(c.want, security_conf_decrypt("kqn", 3, c.type, nullptr, 0, &clear.block, &clear.length));
        EXPECT_EQ(c.clear, clear.bytes()) << c.type;
    }
}

}  // namespace
