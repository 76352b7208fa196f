// What all requests with one record have in common: its way to the daemon and back, and failures.
#include <algorithm>
#include <cerrno>

#include "tests/fakes/library_test.h"

namespace {

using Request = LibraryTest;

struct Function {
    int32_t type;
    size_t size, result;  // of the record, and where the part of it that is a result begins
    uint32_t (*call)(uint32_t operation, char* record);
};

const Function kFunctions[] = {{165, 264, 0, by_record<42, cmi_security_user_config>},
                               {5159, 1108, 0, by_record<42, cmi_security_priv_info_config>},
                               {171, 1, 0, by_record<42, cmi_security_banner_config>},
                               {161, 8, 4, [](uint32_t operation, char* record) {
                                    auto* info = reinterpret_cast<security_enable_info*>(record);
                                    return cmi_enable_info_config(
                                        42, operation, static_cast<int32_t>(info->code), &info->value);
                                }}};

std::string swapped(const Function& function, std::string record) {
    security_conf_cmi_byteorder_convert(function.type, record.data());
    return record;
}

std::string numbered(size_t size, unsigned first) {
    std::string bytes;
    while (bytes.size() < size) bytes += static_cast<char>(first++);
    return bytes;
}

// The words of each type that are byte-swapped; records of other types are unchanged.
TEST(ByteOrder, SwapsExactlyTheListedWords) {
    const struct {
        int32_t type;
        size_t size;
        std::vector<size_t> words;
    } cases[] = {
        {161, 8, {0, 4}},     {165, 264, {128, 132}},
        {5157, 5720, {0, 4}}, {5159, 1108, {0, 4, 1032, 1036, 1104}},
        {5158, 5720, {}},     {171, 1, {}},
        {155, 8452, {}},      {170, 8321, {}},
        {283650, 2108, {}},   {0, 64, {}},
        {-1, 64, {}},
    };
    for (const auto& c : cases) {
        // At an odd address: a record need not be aligned.
        std::string bytes = numbered(c.size + 1, 0);
        const std::string before = bytes;
        std::string expected = bytes;
        for (const size_t word : c.words)
            std::reverse(expected.data() + 1 + word, expected.data() + 5 + word);
        security_conf_cmi_byteorder_convert(c.type, bytes.data() + 1);
        EXPECT_EQ(expected, bytes) << c.type;
        security_conf_cmi_byteorder_convert(c.type, bytes.data() + 1);
        EXPECT_EQ(before, bytes) << c.type << " twice";
    }
}

TEST_F(Request, TravelsInWireOrderAndComesBackInHostOrder) {
    for (const Function& function : kFunctions)
        for (const uint32_t operation : {SET_REQ, GETNEXT_REQ}) {
            const std::string given = numbered(function.size, 1), answer = numbered(function.size, 101);
            std::string record = given;
            world().reply.record = swapped(function, answer);
            EXPECT_EQ(0u, function.call(operation, record.data())) << function.type;
            const Sent& sent = world().requests.back();
            EXPECT_EQ(std::tuple(function.type, operation, 42u),
                      std::tuple(sent.type, sent.operation, sent.connection));
            EXPECT_EQ(swapped(function, given), sent.record) << function.type;
            EXPECT_EQ(given.substr(0, function.result) + answer.substr(function.result), record);
        }
}

TEST_F(Request, FailureLeavesTheRecordAndPassesTheStatusOn) {
    const struct {
        const char* what;
        Reply reply;
        uint32_t want;
    } cases[] = {
        {"a status of the daemon", {.status = 0x404a0014, .record = std::string(2000, 'x')}, 0x404a0014},
        {"a status without a record", {.status = 0x404a0014, .missing = true}, 0x404a0014},
        {"undeliverable", {.status = -1, .error = ENOENT}, 0xffffffff},
        {"no record where one is due", {.missing = true, .error = EPROTO}, 0x804a0000 | EPROTO},
        {"a record that is short", {.record = std::string(200, 'x'), .error = EPROTO}, 0x804a0000 | EPROTO},
    };
    for (const Function& function : kFunctions)
        for (const auto& c : cases) {
            if (c.reply.record && c.reply.status == 0 && function.size < 200) continue;
            world().reply = c.reply;
            std::string record = numbered(function.size, 1);
            errno = 0;
            EXPECT_EQ(c.want, function.call(GETNEXT_REQ, record.data())) << c.what;
            EXPECT_EQ(numbered(function.size, 1), record) << c.what;
            EXPECT_EQ(c.reply.error, errno) << c.what;
        }
}

}  // namespace
