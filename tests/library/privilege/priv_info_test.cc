#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>

#include "tests/fakes/library_test.h"

namespace {

using PrivInfo = LibraryTest;

constexpr char kHash[] = "$1$1f$134cc78c882a1c63";  // of abc, with the salt of the fake random number

security_priv_info hashed(int32_t number) {
    auto info = level(number, 1, kHash);
    info.shadow_style = 1;
    return info;
}

// The record as it travels; it is stored in the same order.
std::string wire(security_priv_info info) {
    security_conf_cmi_byteorder_convert(5159, &info);
    return bytes_of(info);
}

uint32_t config(uint32_t operation, security_priv_info& info) {
    return security_priv_info_config(kHandle, operation, &info);
}

TEST_F(PrivInfo, ClearSecretsAreHashedOnTheWayIn) {
    auto info = level(3, 100, padded("abc", 22) + "tail");
    memset(info.salt, 's', 10);
    info.salt_len = 10;
    EXPECT_EQ(0u, config(SET_REQ, info));

    auto want = hashed(3);
    strcpy(want.secret, (kHash + std::string("tail")).c_str());  // no terminator is written behind the hash
    memset(want.salt + 1, 's', 9);                               // only the first byte of the salt is cleared
    EXPECT_EQ(bytes_of(want), bytes_of(info));
    EXPECT_EQ((std::map<std::string, std::string>{{number_key(22, 3), wire(want).substr(4)}}), world().store);

    auto read = level(3);
    EXPECT_EQ(0u, config(GET_REQ, read));
    EXPECT_EQ(bytes_of(want), bytes_of(read));
}

TEST_F(PrivInfo, OnlySetOfClearSecretsHashes) {
    const std::pair<uint32_t, int32_t> cases[] = {{SET_REQ, 0},   {SET_REQ, 1},       {SET_REQ, 99}, {0, 100},
                                                  {GET_REQ, 100}, {GETNEXT_REQ, 100}, {DEL_REQ, 100}};
    for (const auto& [operation, encryption] : cases) {
        SetUp();
        auto info = level(3, encryption, "abc");
        config(operation, info);
        EXPECT_EQ(bytes_of(level(3, encryption, "abc")), bytes_of(info)) << operation << encryption;
    }
}

TEST_F(PrivInfo, AFailedHashStoresAndChangesNothing) {
    auto info = level(3, 100);
    memset(info.secret, 'x', sizeof info.secret);  // no terminator
    const auto before = info;
    EXPECT_EQ(0x404a0009u, config(SET_REQ, info));
    EXPECT_EQ(bytes_of(before), bytes_of(info));
    EXPECT_TRUE(world().calls.empty());
    EXPECT_EQ("encryption failed for secret:, encryption-type:1", world().traces.back());
}

TEST_F(PrivInfo, Traces) {
    auto info = level(3, 100, "abc");
    config(SET_REQ, info);
    // Without the line numbers, and without the traces of the hash itself.
    Texts seen;
    for (const auto& text : world().traces)
        seen.push_back(
            std::regex_replace(text, std::regex("^security_priv_info_config\\([0-9]+\\):"), "(.):"));
    ASSERT_GE(seen.size(), 11u);
    seen.erase(seen.begin() + 2, seen.end() - 9);
    const Texts expected = {
        "In security_priv_info_config:",
        "(.):Not encrypted, encrypting",
        "(.):secret hash:$1$1f$134cc78c882a1c63c9d1ceedbade352e, secret hash-len:22 encryption-type:1",
        "(.):encryption type before storing in pss: 1",
        "(.):encryption type stored in pss: 16777216",
        "SET operation for prvi_lvl:3",
        "(.):encryption_type 1",
        "(.):secret_len 22",
        "(.):shadow_style TRUE",
        "(.):salt_len 0",
        "status for the operation 3: <[0]>",
    };
    EXPECT_EQ(expected, seen);
    for (const uint32_t want : {0x404a0046u, 0u}) {  // on each step that succeeds, found or not
        world().traces.clear();
        EXPECT_EQ(want, config(GETNEXT_REQ, info));
        EXPECT_EQ(1, std::ranges::count(world().traces, "My error"));
        info.priv_lvl = 2;
    }
}

// The levels that were asked for, as a text of one digit each in base 16.
std::string levels_asked() {
    std::string asked;
    for (const auto& sent : world().requests) asked += "0123456789abcdef"[sent.record[3] & 15];
    world().requests.clear();
    return asked;
}

TEST_F(PrivInfo, AllLevelsUntilTheFirstFailure) {
    auto info = level(9, 1, "given");
    world().replies[2] = {.status = 0x40480003};
    EXPECT_EQ(0x40480003u, cmi_security_priv_info_config_all(0, GET_REQ, &info));
    EXPECT_EQ("123", levels_asked());
    world().replies = {{0, {.record = wire(level(1, 1, "from level 1"))}}};
    EXPECT_EQ(0u, cmi_security_priv_info_config_all(0, SET_REQ, &info));
    EXPECT_EQ(wire(level(2, 1, "from level 1")), world().requests[1].record) << "as the last reply left it";
    EXPECT_EQ("123456789abcdef", levels_asked());
}

TEST_F(PrivInfo, CleanupGoesOnWhereALevelHasNone) {
    for (size_t i = 0; i < 15; ++i)
        if (i != 2 && i != 6) world().replies[i] = {.status = 0x40480003};
    EXPECT_EQ(0u, cmi_security_vsh_callback_priv_info_cleanup(5));
    EXPECT_EQ(DEL_REQ, static_cast<int>(world().requests[14].operation));
    EXPECT_EQ(wire(level(1)), world().requests[0].record) << "an empty record";
    EXPECT_EQ("123456789abcdef", levels_asked());

    world().replies = {{3, {.status = 0x4048000c}}};
    EXPECT_EQ(0x4048000cu, cmi_security_priv_info_cleanup(5, DEL_REQ));
    EXPECT_EQ("1234", levels_asked());
    world().replies = {{0, {.status = -1, .error = ENOENT}}};
    EXPECT_EQ(0xffffffffu, cmi_security_priv_info_cleanup(5, DEL_REQ));
}

TEST_F(PrivInfo, VerifiesASecret) {
    const std::string no_end = wire(level(3, 1, std::string(1024, '$')));
    const struct {
        const char* what;
        Reply reply;
        const char* candidate;
        uint32_t want, matched;
    } cases[] = {
        {"right", {.record = wire(hashed(3))}, "abc", 0, 1},
        {"wrong", {.record = wire(hashed(3))}, "abd", 0x404a0009, 0},
        {"no secret", {.status = 0x404a0045}, "abc", 0x404a0045, 0},
        {"a field without an end", {.record = no_end}, "abc", 0x404a0008, 0},
    };
    for (const auto& c : cases) {
        world().reply = c.reply;
        uint32_t matched = 9;
        EXPECT_EQ(c.want, security_verify_priv_level_secret(0, c.candidate, 3, 3, &matched)) << c.what;
        EXPECT_EQ(c.matched, matched) << c.what;
    }
}

TEST_F(PrivInfo, RolesByLevelAndContext) {
    const struct {
        int32_t level, vdc;
        const char* role;
    } cases[] = {{0, 1, "priv-0"},         {9, 2, "priv-9"},     {10, 1, "priv-10"}, {14, 1, "priv-14"},
                 {15, 1, "network-admin"}, {15, 2, "vdc-admin"}, {16, 1, ""},        {-1, 1, ""},
                 {INT32_MIN, 1, ""}};
    for (const auto& c : cases) {
        world() = World();
        world().vdc = c.vdc;
        std::string buffer(1025, '#');
        EXPECT_EQ(buffer.data(), security_map_priv_lvl_to_roles(c.level, buffer.data()));
        EXPECT_EQ(padded(c.role, 1024) + "#", buffer) << c.level;
        EXPECT_EQ(c.level == 10 ? 2u : 1u, world().traces.size()) << c.level;
        const std::string& trace = world().traces.back();
        EXPECT_EQ(0u, trace.find("security_map_priv_lvl_to_roles("));
        EXPECT_EQ("): privilege level " + std::to_string(c.level) + ", corresponding role is: " + c.role,
                  trace.substr(trace.find(')')));
    }
}

TEST_F(PrivInfo, Hooks) {
    EXPECT_EQ(1u, vsh_is_privilege_enabled());
    EXPECT_EQ(1u, vsh_is_priv_enable());
    EXPECT_EQ(0u, is_expired_user_allowed());
}

}  // namespace
