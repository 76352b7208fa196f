#include <cerrno>
#include <cstring>
#include <memory>

#include "library/sshkey/blob.h"
#include "tests/fakes/library_test.h"

namespace {

using KeyCommand = LibraryTest;

TEST_F(KeyCommand, TheKindChoosesTypeOrderAndTexts) {
    const std::string longer(300, 'x');
    for (uint32_t kind = 0; kind <= 7; ++kind) {
        SetUp();
        const bool transfer = kind >= 2 && kind <= 5;
        uint32_t value = 0x01020304;
        EXPECT_EQ(0u, cmi_user_sshkey_config(9, SET_REQ, kind, longer.c_str(),
                                             kind == 3 ? nullptr : longer.c_str(), longer.c_str(), &value));
        EXPECT_EQ(0x01020304u, value) << "the reply's, in host order";
        const Sent& sent = world().requests.at(0);
        ssh_key_cmd_rec record;
        ASSERT_EQ(sizeof record, sent.record.size());
        memcpy(&record, sent.record.data(), sizeof record);
        EXPECT_EQ(std::tuple(transfer ? 5158 : 5157, 9u, 180u),
                  std::tuple(sent.type, sent.connection, sent.timeout));
        EXPECT_EQ(transfer ? kind : __builtin_bswap32(kind), record.kind) << kind;
        EXPECT_EQ(transfer ? 0x01020304u : 0x04030201u, record.value) << kind;
        EXPECT_EQ(127u, strnlen(record.user_name, 128)) << "cut at its field";
        EXPECT_EQ(transfer && kind != 3 ? 127u : 0, strnlen(record.first_text, 128)) << kind;
        EXPECT_EQ(transfer ? 255u : 0, strnlen(record.second_text, 256)) << kind;
        Texts traces = {"cmi_user_sshkey_config",
                        "cmi_user_sshkey_config: SSH Userkey Import/Export request"};
        traces.resize(transfer ? 2 : 1);
        EXPECT_EQ(traces, world().traces);
        EXPECT_EQ(60u, security_cmi_timeout);
    }
}

TEST_F(KeyCommand, FailuresLeaveValueAndTimeout) {
    uint32_t value = 7;
    EXPECT_EQ(0xffffffffu, cmi_user_sshkey_config(0, SET_REQ, 1, nullptr, nullptr, nullptr, &value));
    EXPECT_TRUE(world().requests.empty());
    for (const Reply& reply : {Reply{.status = 0x404a0106}, Reply{.status = -1, .error = ENOENT}}) {
        world().reply = reply;
        EXPECT_EQ(static_cast<uint32_t>(reply.status),
                  cmi_user_sshkey_config(0, SET_REQ, 4, "amy", nullptr, nullptr, &value));
    }
    EXPECT_EQ(7u, value);
    EXPECT_EQ(60u, security_cmi_timeout);
}

// Most of these are the examples of RFC 4251 section 5.
TEST(SshKeyBlob, NumbersAreSigned) {
    const std::pair<const char*, std::string> cases[] = {
        {"0", {"\0\0\0\0", 4}},
        {"7f", {"\0\0\0\1\x7f", 5}},
        {"80", {"\0\0\0\2\0\x80", 6}},
        {"9a378f9b2e332a7", {"\0\0\0\x08\x09\xa3\x78\xf9\xb2\xe3\x32\xa7", 12}},
        {"-1234", ""},
    };
    for (const auto& [hex, want] : cases) {
        BIGNUM* number = nullptr;
        BN_hex2bn(&number, hex);
        unsigned char bytes[32];
        EXPECT_EQ(want.empty() ? -1 : static_cast<int32_t>(want.size()),
                  quill::sshkey_put_mpint(bytes, number))
            << hex;
        EXPECT_EQ(want, std::string(reinterpret_cast<char*>(bytes), want.size())) << hex;
        EXPECT_LE(want.size(), quill::max_mpint_size(number));
        BN_free(number);
    }
}

}  // namespace
