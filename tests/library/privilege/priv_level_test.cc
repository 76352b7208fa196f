#include "tests/fakes/library_test.h"

namespace {

using PrivLevel = LibraryTest;

TEST_F(PrivLevel, RolesByLevelAndContext) {
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

TEST_F(PrivLevel, Hooks) {
    EXPECT_EQ(1u, vsh_is_privilege_enabled());
    EXPECT_EQ(1u, vsh_is_priv_enable());
    EXPECT_EQ(0u, is_expired_user_allowed());
}

}  // namespace
