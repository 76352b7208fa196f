#include <cerrno>

#include "tests/fakes/library_test.h"

namespace {

using EnableInfo = LibraryTest;

TEST_F(EnableInfo, NamesAndTheirOrder) {
    const int32_t codes[] = {1, 2, 14, 8, 9, 10, 12, 16, 20, 21, 22, 23};
    const char* const names[] = {
        "ssh",  "telnet", "http-server", "rsa key", "dsa key",         "rsa1 key",
        "fips", "scp",    "bash-shell",  "ploty",   "ploty http port", "ploty https port"};
    ASSERT_EQ(12, enable_info_str_table_size);
    for (size_t i = 0; i < 12; ++i) {
        EXPECT_EQ(codes[i], enable_info_str_table[i].code);
        EXPECT_STREQ(names[i], enable_info_str_table[i].name);
        EXPECT_STREQ(names[i], enable_info_to_str(codes[i]));
    }
    for (const int32_t code : {0, 3, 13, 15, 24, -1}) EXPECT_EQ(nullptr, enable_info_to_str(code)) << code;
}

TEST_F(EnableInfo, AnUnsetServiceIsAnErrorAndItsValueUnchanged) {
    uint32_t value = 0x11223344;  // shows if it comes back byte-swapped
    EXPECT_EQ(0x404a0007u, enable_info_config(kHandle, GET_REQ, 3, &value));
    EXPECT_EQ(0x11223344u, value);
    EXPECT_EQ(
        (Texts{"GET_REQ for (null)", "got back the return value of configuration operation:<[404a0007]>"}),
        world().traces);
}

TEST_F(EnableInfo, ClientWaitsLongerForSomeAndPutsTheLimitBack) {
    const std::map<int32_t, uint32_t> longer = {{8, 180}, {9, 180}, {10, 180}, {12, 180}, {21, 15}};
    security_cmi_timeout = 33;
    for (const int32_t status : {0, 0x404a0007, -1}) {
        world().reply = {.status = status, .error = ETIMEDOUT};
        for (int32_t code = 0; code < 25; ++code) {
            uint32_t value = 5;
            EXPECT_EQ(static_cast<uint32_t>(status), cmi_enable_info_config(0, GET_REQ, code, &value));
            EXPECT_EQ(5u, value);
            const auto found = longer.find(code);
            EXPECT_EQ(found == longer.end() ? 33 : found->second, world().requests.back().timeout) << code;
            EXPECT_EQ(33u, security_cmi_timeout) << code;
        }
    }
}

}  // namespace
