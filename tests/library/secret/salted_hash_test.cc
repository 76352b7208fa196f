// Hash strings compared with digests of the openssl tool:
//   printf '%s' SECRET SALT SECRET | openssl dgst -md5
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "tests/fakes/library_test.h"

namespace {

std::vector<unsigned> seeds;
bool clock_fails = false;

}  // namespace

// Replaces the C library's function.
extern "C" void srandom(unsigned seed) { seeds.push_back(seed); }
extern "C" int clock_gettime(clockid_t clock, timespec* now) {
    if (!clock_fails) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    errno = EINVAL;
    return -1;
}

namespace {

using SaltedHash = LibraryTest;

constexpr char kSixty[] = "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx";

uint32_t verify(const std::string& secret, const std::string& stored) {
    return security_verify_shadowed_hash(secret.data(), static_cast<uint32_t>(secret.size()), stored.c_str(),
                                         static_cast<uint32_t>(stored.size()));
}

TEST_F(SaltedHash, NumbersAsText) {
    const std::tuple<char, uint32_t, const char*> cases[] = {{'x', 255, "ff"},
                                                             {'d', 255, "255"},
                                                             {'X', 255, "255"},
                                                             {'x', 0, "0"},
                                                             {'d', 0xffffffff, "4294967295"},
                                                             {'x', 0x1a0, "1a0"}};
    for (const auto& [radix, value, want] : cases) {
        char text[11];
        security_ltoa(text, radix, value);
        EXPECT_STREQ(want, text);
    }
}

TEST_F(SaltedHash, SaltsIgnoreTheLengthAskedFor) {
    const std::pair<uint32_t, std::string> cases[] = {{0, "0"}, {0x1f, "1f"}, {0xffffffff, "ffffffff"}};
    for (const auto generate : {security_gen_salt, security_gen_fix_len_salt})
        for (const int32_t asked : {-1, 0, 1, 10, 64})
            for (const auto& [number, want] : cases) {
                world().random = number;
                char salt[9];
                int32_t length = asked;
                EXPECT_EQ(0u, generate(salt, &length));
                EXPECT_EQ(want, salt) << asked;
                EXPECT_EQ(want.size(), static_cast<size_t>(length)) << asked;
            }
    char salt[9] = "kept";
    int32_t length = 65;
    EXPECT_EQ(0x404a0009u, security_gen_salt(salt, &length));
    EXPECT_STREQ("kept", salt);
    EXPECT_EQ("security salt-generation error", world().traces.back());
}

// The generator is seeded for each salt: with the nanoseconds of the clock, or with the time and process id.
TEST_F(SaltedHash, SaltsSeedTheGenerator) {
    for (const bool fails : {false, true}) {
        seeds.clear();
        world().randoms = 0;
        char salt[9];
        int32_t length = 10;  // takes a number, then asks again without a length
        const auto before = static_cast<unsigned>(time(nullptr)) + static_cast<unsigned>(getpid());
        clock_fails = fails;
        EXPECT_EQ(0u, security_gen_salt(salt, &length));
        clock_fails = false;
        ASSERT_EQ(2u, seeds.size());
        EXPECT_EQ(2, world().randoms);
        if (fails)
            EXPECT_LE(seeds[0] - before, 1u);
        else
            EXPECT_NE(seeds[0], seeds[1]) << "nanoseconds pass between the two";
        EXPECT_LT(seeds[0], fails ? 0xffffffffu : 1000000000u);
    }
}

TEST_F(SaltedHash, DigestIsOverSecretSaltSecret) {
    const struct {
        const char *digest, *secret, *salt, *text;
    } cases[] = {
        {"md5", "", "a", "0cc175b9c0f1b6a831c399e269772661"},
        {"sha1", "abc", "1f", "dd5dbf83cb7be05e4af5661458deff52ea91dce6"},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        std::string area(1024 + 1, '#'), name = c.digest, text = c.text;
        const auto secret_length = static_cast<uint32_t>(strlen(c.secret));
        const auto salt_length = static_cast<uint32_t>(strlen(c.salt));
        uint32_t length = 0;
        EXPECT_EQ(0u, security_calculate_hash(c.secret, secret_length, c.salt, salt_length, area.data(),
                                              &length, c.digest));
        EXPECT_EQ(padded(text, 1024) + "#", area) << "1024 bytes and no more";
        EXPECT_EQ(text.size() / 2, length);
        Texts traces = {name + " Digest is: "};
        for (size_t i = 0; i < text.size(); i += 2) traces.push_back(text.substr(i, 2));
        traces.insert(traces.end(), {"\n", "md5 hash_len:" + std::to_string(length),  // whatever the digest
                                     "md5 hash_data(hex):" + text});
        EXPECT_EQ(traces, world().traces);
    }
    char area[1024] = "kept";
    uint32_t length = 9;
    EXPECT_EQ(0x404a0008u, security_calculate_hash("abc", 3, "1f", 2, area, &length, "none"));
    EXPECT_EQ("Unknown message digest none\n", world().traces.back());
    EXPECT_STREQ("kept", area);
    world().history = false;
    world().debug = true;
    security_calculate_hash("abc", 3, "1f", 2, area, &length, "sha1");
    EXPECT_EQ(24u, world().printed.size()) << "the other sink alone";
}

TEST_F(SaltedHash, EncoderCountsHalfTheDigits) {
    const std::tuple<const char*, uint32_t, const char*> cases[] = {
        {"abc", 0x1f, "$1$1f$134cc78c882a1c63c9d1ceedbade352e"},
        {"", 0xa, "$1$a$0cc175b9c0f1b6a831c399e269772661"},
        {kSixty, 0xdeadbeef, "$1$deadbeef$29408780e5196e5a70adebacd6959bb7"}};
    for (const auto& [secret, salt, want] : cases) {
        world().random = salt;
        char* block = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(0u, security_md5_encrypt_func(secret, nullptr, 0, &block, &length));
        EXPECT_STREQ(want, block);
        EXPECT_EQ(strlen(want) - 16, length);
        const std::string stored(block, length);
        EXPECT_EQ(0u, verify(secret, stored));
        EXPECT_EQ(0x404a0009u, verify(std::string(secret) + "x", stored));
        free(block);
    }
}

TEST_F(SaltedHash, VerifiesExactlyHashStrings) {
    const struct {
        const char *what, *stored;
        uint32_t want;
    } cases[] = {
        {"md5", "$1$1f$134cc78c882a1c63", 0},
        {"sha-1", "$3$1f$dd5dbf83cb7be05e4af5", 0},
        {"md5 under sha-1's number", "$3$1f$134cc78c882a1c63", 0x404a0009},
        {"all digits", "$1$1f$134cc78c882a1c63c9d1ceedbade352e", 0x404a0009},
        {"one digit short", "$1$1f$134cc78c882a1c6", 0x404a0009},
        {"one digit wrong", "$1$1f$134cc78c882a1c64", 0x404a0009},
        {"upper-case digits", "$1$1f$134CC78C882A1C63", 0x404a0009},
        {"another salt", "$1$1e$134cc78c882a1c63", 0x404a0009},
        {"no salt, another digest", "$1$$440ac85892ca43ad", 0},
        {"unknown type", "$2$1f$134cc78c882a1c63", 0x404a0009},
        {"a type that names no digest", "$0$1f$134cc78c882a1c63", 0x404a0008},
        {"the same, with lengths that do not add up", "$x$ab$0123456789abcdef", 0x404a0008},
        {"two-digit type: the salt is taken one too long", "$01$1f$134cc78c882a1c63", 0x404a0009},
        {"and verifies with the separator in it", "$01$1f$8873ff23f0643409", 0},
        {"no second separator", "$1$1f134cc78c882a1c63", 0x404a0009},
        {"no digest", "$1$1f$", 0x404a0009},
        {"type at the end of the text", "$1", 0x404a0009},
        {"longer type at the end", "$11111", 0x404a0009},
        {"digest type three at the end", "$0003", 0x404a0009},
        {"empty", "", 0x404a0009},
    };
    for (const auto& c : cases) {
        // On the heap, of exactly its length, so that the sanitizer finds a read past its end.
        const std::string stored(c.stored);
        const std::vector<char> exact(stored.c_str(), stored.c_str() + stored.size() + 1);
        const auto size = static_cast<uint32_t>(stored.size());
        EXPECT_EQ(c.want, security_verify_shadowed_hash("abc", 3, exact.data(), size)) << c.what;
        // The length given determines the length of the salt, but nothing past the text is read.
        if (c.want != 0 || stored[2] != '$') continue;
        for (const uint32_t length :
             {0u, 2u, 3u, 17u, size - 1, size + 1, 41u, 1024u, 0x7fffffffu, 0xffffffffu})
            EXPECT_EQ(0x404a0009u, security_verify_shadowed_hash("abc", 3, exact.data(), length)) << length;
    }
    EXPECT_EQ(0x404a0009u, security_verify_shadowed_hash("abc", 3, nullptr, 22));
    world().traces.clear();
    verify("abc", "$1$1f$134cc78c882a1c63");
    EXPECT_EQ("security_verify_shadowed_hash(518): digest_type:1 ", world().traces.at(0));
    EXPECT_EQ("security_verify_shadowed_hash(523) Digest is:md5", world().traces.at(1));
}

TEST_F(SaltedHash, DecoderReturnsTheCandidate) {
    const char stored[] = "$1$1f$134cc78c882a1c63";
    char* output = reinterpret_cast<char*>(1);
    uint32_t length = 9;
    EXPECT_EQ(0x404a0009u, security_verify_md5_hash_func(stored, 22, "abd", 3, &output, &length));
    EXPECT_EQ(nullptr, output);
    ASSERT_EQ(0u, security_verify_md5_hash_func(stored, 22, "abc", 3, &output, &length));
    EXPECT_EQ("abc", std::string(output, length));
    free(output);
}

TEST_F(SaltedHash, DigestNames) {
    const std::pair<int32_t, std::string> cases[] = {
        {0, {"none\0###", 8}}, {1, {"md5\0\0\0\0\0", 8}}, {3, {"sha1\0###", 8}}, {2, {"\0#######", 8}}};
    for (const auto& [type, want] : cases) {  // only md5 fills the buffer
        char name[] = "########";
        EXPECT_EQ(type == 2 ? nullptr : name, security_get_digest_name_from_encryption_type(name, type));
        EXPECT_EQ(want, std::string(name, 8));
    }
}

}  // namespace
