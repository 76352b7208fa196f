#include <cerrno>

#include "tests/fakes/library_test.h"

namespace {

using EnableInfo = LibraryTest;

TEST_F(EnableInfo, NamesAndTheirOrder) {
    const std::pair<int32_t, const char*> expected[] = {
        {1, "ssh"},
        {2, "telnet"},
        {14, "http-server"},
        {8, "rsa key"},
        {9, "dsa key"},
        {10, "rsa1 key"},
        {12, "fips"},
        {16, "scp"},
        {20, "bash-shell"},
        {21, "ploty"},
        {22, "ploty http port"},
        {23, "ploty https port"},
    };
    ASSERT_EQ(12, enable_info_str_table_size);
    for (size_t i = 0; i < 12; ++i) {
        EXPECT_EQ(expected[i].first, enable_info_str_table[i].code);
        EXPECT_STREQ(expected[i].second, enable_info_str_table[i].name);
        EXPECT_STREQ(expected[i].second, enable_info_to_str(expected[i].first));
    }
    for (const int32_t code : {0, 3, 13, 15, 24, -1}) EXPECT_EQ(nullptr, enable_info_to_str(code)) << code;
}

TEST_F(EnableInfo, AnswersByOperation) {
    // 0x11223344 shows if it comes back, or is stored, byte-swapped.
    const struct {
        const char* what;
        uint32_t operation;
        int32_t code;
        uint32_t want, value;
    } cases[] = {
        {"get", GET_REQ, 2, 0, 0x01020304},      {"get of an unset one", GET_REQ, 1, 0x404a0007, 0x11223344},
        {"get of unset scp", GET_REQ, 16, 0, 0}, {"get of a code without a name", GET_REQ, 13, 0, 7},
        {"set", SET_REQ, 14, 0, 0x11223344},
    };
    world().store = {{number_key(1, 2), be32(0x01020304)}, {number_key(1, 13), be32(7)}};
    for (const auto& c : cases) {
        uint32_t value = 0x11223344;
        EXPECT_EQ(c.want, enable_info_config(kHandle, c.operation, c.code, &value)) << c.what;
        EXPECT_EQ(c.value, value) << c.what;
    }
    const std::map<std::string, std::string> expected = {{number_key(1, 2), be32(0x01020304)},
                                                         {number_key(1, 13), be32(7)},
                                                         {number_key(1, 14), be32(0x11223344)}};
    EXPECT_EQ(expected, world().store);
}

TEST_F(EnableInfo, Traces) {
    uint32_t value = 3000000000;
    enable_info_config(kHandle, SET_REQ, 14, &value);
    enable_info_config(kHandle, GET_REQ, 3, &value);
    enable_info_config(kHandle, DEL_REQ, 14, &value);
    const std::vector<std::string> expected = {
        "SET_REQ for http-server with value:-1294967296",
        "got back the return value of configuration operation:<[0]>",
        "GET_REQ for (null)",
        "got back the return value of configuration operation:<[404a0007]>",
        "got back the return value of configuration operation:<[0]>",
    };
    EXPECT_EQ(expected, world().traces);
}

TEST_F(EnableInfo, ClientSendsOneRecordAndTakesTheValue) {
    world().reply.record = be32(14) + be32(8080);
    uint32_t value = 5;
    EXPECT_EQ(0u, cmi_enable_info_config(9, SET_REQ, 14, &value));
    EXPECT_EQ(8080u, value);
    ASSERT_EQ(1u, world().requests.size());
    EXPECT_EQ(161, world().requests[0].type);
    EXPECT_EQ(SECURITY_OK + 3u, world().requests[0].operation);
    EXPECT_EQ(be32(14) + be32(5), world().requests[0].record);
    EXPECT_EQ(9u, world().requests[0].connection);
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
