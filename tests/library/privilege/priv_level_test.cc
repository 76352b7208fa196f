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
        std::string want = c.role;
        want.resize(1024);
        EXPECT_EQ(want + "#", buffer) << c.level;
        EXPECT_EQ(c.level == 10 ? 2u : 1u, world().traces.size()) << c.level;
        const std::string end =
            ": privilege level " + std::to_string(c.level) + ", corresponding role is: " + c.role;
        EXPECT_TRUE(world().traces[0].ends_with(end)) << world().traces[0];
        EXPECT_TRUE(world().traces[0].starts_with("security_map_priv_lvl_to_roles(")) << world().traces[0];
    }
}

TEST_F(PrivLevel, Hooks) {
    EXPECT_EQ(1u, vsh_is_privilege_enabled());
    EXPECT_EQ(1u, vsh_is_priv_enable());
    EXPECT_EQ(0u, is_expired_user_allowed());
}

}  // namespace
