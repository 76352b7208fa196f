#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using SelfTest = LibraryTest;

TEST_F(SelfTest, RequestsAreBuiltByteByByteOrRefused) {
    std::vector<uint32_t> entries(65535);
    for (uint32_t i = 0; i < entries.size(); ++i) entries[i] = i * 0x01010101;
    for (const uint16_t count : {uint16_t{1}, uint16_t{3}, uint16_t{65535}}) {
        EXPECT_EQ(0u, securityd_bootup_fips_post_test_send_request(9, 0xab, count, entries.data()));
        const Announced& sent = world().announced.back();
        EXPECT_EQ((std::vector<uint32_t>{9, 0xFE000000u, 55, 2213, 0, 0, 0}), sent.words);
        const std::string body(reinterpret_cast<const char*>(entries.data()), 4u * count);
        EXPECT_TRUE(std::string("\xab\0", 2) + bytes_of(count) + body == sent.payload) << count;
    }
    const uint32_t entry = 1;
    world().announced.clear();
    EXPECT_EQ(0x404a003eu, securityd_bootup_fips_post_test_send_request(9, 1, 0, &entry));
    EXPECT_EQ(0x404a003eu, securityd_bootup_fips_post_test_send_request(9, 1, 1, nullptr));
    EXPECT_TRUE(world().announced.empty());
    for (const auto& [result, want] : {std::pair{-1, 0x404a003eu}, {-7, 0x404a003eu}, {7, 0u}}) {
        world().mts_result = result;
        EXPECT_EQ(want, securityd_bootup_fips_post_test_send_request(9, 1, 1, &entry));
    }
}

struct Parts {
    uint8_t value = 0xee;
    uint32_t word = 0xeeeeeeee;
    uint16_t size = 0xeeee;
    void* array = nullptr;
    ~Parts() { free(array); }
};

uint32_t parse(const FakeMessage& message, Parts& parts) {
    return securityd_bootup_fips_post_test_parse_response(&message, &parts.value, &parts.word, &parts.size,
                                                          &parts.array);
}

std::string response(uint32_t array_size, const std::string& elements) {
    return std::string("\x07xyz\x04\x03\x02\x01", 8) + be32(array_size) + elements;
}

TEST_F(SelfTest, ResponsesAreParsed) {
    for (const uint32_t size : {4u, 8u, 100u, 70000u})
        for (const bool sized : {true, false}) {  // a transport may leave the size out
            world().mts_sizes = sized;
            const std::string elements(size - 4, 'e');
            Parts parts;
            ASSERT_EQ(0u, parse({2213, response(size, elements) + "more"}, parts));
            EXPECT_EQ(7, parts.value);
            EXPECT_EQ(0x01020304u, parts.word);
            EXPECT_EQ(size & 0xffff, parts.size);
            EXPECT_TRUE(be32(size) + elements == std::string(static_cast<char*>(parts.array), size));
        }
    world().mts_sizes = true;
    for (const size_t size : {8, 11}) {  // without an array, of which nothing is read
        Parts parts;
        ASSERT_EQ(0u, parse({2213, response(0xffffffff, "").substr(0, size)}, parts));
        EXPECT_EQ(0, parts.size);
    }
}

TEST_F(SelfTest, ResponsesThatAreNone) {
    const std::string whole = response(8, "eeee");
    const FakeMessage good{2213, whole};
    const FakeMessage cases[] = {{2212, whole},
                                 {2213, std::nullopt},
                                 {2213, whole.substr(0, 7)},
                                 {2213, response(9, "eeee")},
                                 {2213, response(0xffffffff, "eeee")}};
    for (const auto& message : cases) {
        Parts parts;
        EXPECT_EQ(0x404a003eu, parse(message, parts));
        EXPECT_EQ(nullptr, parts.array);
    }
    Parts p;
    const auto parse_response = securityd_bootup_fips_post_test_parse_response;
    EXPECT_EQ(0x404a003eu, parse_response(nullptr, &p.value, &p.word, &p.size, &p.array));
    EXPECT_EQ(0x404a003eu, parse_response(&good, nullptr, &p.word, &p.size, &p.array));
    EXPECT_EQ(0x404a003eu, parse_response(&good, &p.value, &p.word, nullptr, &p.array));
    EXPECT_EQ(0x404a003eu, parse_response(&good, &p.value, &p.word, &p.size, nullptr));
}

}  // namespace
