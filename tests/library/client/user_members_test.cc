// Roles and locales with a scripted channel: which lists are read and which are written back.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/library/accounts/account_files.h"

namespace {

struct Kind {
    const char* name;
    uint32_t (*config)(uint32_t, uint32_t, common_user_member*);
    std::vector<std::string> World::*known;
    int32_t asking, changing;
    uint32_t unknown, not_held, too_many;
};
const Kind kKinds[] = {
    {"role", cmi_common_user_role_config, &World::roles, 5155, 158, 0x404a000d, 0x404a000e, 0x404a0024},
    {"locale", cmi_common_user_locale_config, &World::locales, 5161, 5161, 0x404a004b, 0x404a004c,
     0x404a004a},
};

std::string list(const std::string& user, const std::vector<std::string>& names) {
    std::string bytes(4292, '\0');
    bytes.replace(0, user.size(), user);
    const auto count = static_cast<int32_t>(names.size());
    memcpy(bytes.data() + 128, &count, sizeof count);
    for (size_t i = 0; i < names.size(); ++i) bytes.replace(132 + 65 * i, names[i].size(), names[i]);
    return bytes;
}

std::vector<std::string> many(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back("n" + std::to_string(i));
    return names;
}

class UserMembers : public AccountFiles {
 protected:
    void SetUp() override {
        AccountFiles::SetUp();
        write({{"bob"}, {"al"}, {"zoe"}});
        world().roles = world().locales = {"ops"};
    }
    static common_user_member member(const char* user, const char* name) {
        common_user_member made{};
        strcpy(made.user_name, user);
        strcpy(made.name, name);
        return made;
    }
};

TEST_F(UserMembers, HeldOrNot) {
    for (const Kind& kind : kKinds) {
        SetUp();
        auto held = member("bob", "ops");
        world().reply.record = list("bob", {"net", "ops"});
        EXPECT_EQ(0u, kind.config(3, GET_REQ, &held)) << kind.name;
        ASSERT_EQ(1u, world().requests.size());
        EXPECT_EQ(kind.asking, world().requests[0].type);
        EXPECT_EQ(list("bob", {}), world().requests[0].record);
        EXPECT_EQ(3u, world().requests[0].connection);

        for (const auto& names : {many(0), {"op"}, {"opss"}, many(64)}) {
            world().reply.record = list("bob", names);
            EXPECT_EQ(kind.not_held, kind.config(3, GET_REQ, &held));
        }
        // A count out of range is clamped.
        std::string lying = list("bob", many(64));
        memset(lying.data() + 128, 0x7f, 4);
        world().reply.record = lying;
        EXPECT_EQ(kind.not_held, kind.config(3, GET_REQ, &held));
        world().reply.record = lying.substr(100);
        EXPECT_EQ(0x804a0000u | EPROTO, kind.config(3, GET_REQ, &held));
        world().reply = {.status = -1, .error = ECONNREFUSED};
        EXPECT_EQ(0x804a0000u | ECONNREFUSED, kind.config(3, GET_REQ, &held));
        world().reply = {.status = 0x404a0106};
        EXPECT_EQ(0x404a0106u, kind.config(3, GET_REQ, &held));
    }
}

TEST_F(UserMembers, AddingReadsAppendsAndWritesBack) {
    for (const Kind& kind : kKinds) {
        SetUp();
        auto wanted = member("bob", "ops");
        auto names = many(63);
        world().replies[0] = {.record = list("bob", names)};
        EXPECT_EQ(0u, kind.config(3, SET_REQ, &wanted)) << kind.name;
        names.push_back("ops");
        ASSERT_EQ(2u, world().requests.size());
        EXPECT_EQ(uint32_t{GET_REQ}, world().requests[0].operation);
        EXPECT_EQ(uint32_t{SET_REQ}, world().requests[1].operation);
        EXPECT_EQ(list("bob", names), world().requests[1].record);
        for (const Sent& sent : world().requests) EXPECT_EQ(kind.changing, sent.type);

        // The user has the name already, or the list is full: nothing is written.
        world().replies[2] = {.record = list("bob", names)};
        EXPECT_EQ(0u, kind.config(3, SET_REQ, &wanted));
        const bool says_so = kind.asking != kind.changing;  // for roles only
        EXPECT_EQ(says_so ? 1 : 0, std::ranges::count(world().traces, "Role ops already assigned"));
        world().replies[3] = {.record = list("bob", many(64))};
        EXPECT_EQ(kind.too_many, kind.config(3, SET_REQ, &wanted));
        EXPECT_EQ(4u, world().requests.size());

        world().replies[5] = {.status = -1, .error = EPIPE};  // the write fails
        world().replies[4] = {.record = list("bob", {})};
        EXPECT_EQ(0x804a0000u | EPIPE, kind.config(3, SET_REQ, &wanted));

        auto nobody = member("nobody-here", "ops");
        EXPECT_EQ(0x404a0014u, kind.config(3, SET_REQ, &nobody));
        auto unknown = member("bob", "opera");
        for (const uint32_t operation : {SET_REQ, DEL_REQ})
            EXPECT_EQ(kind.unknown, kind.config(3, operation, &unknown));
        EXPECT_EQ(6u, world().requests.size());

        EXPECT_EQ(0u, kind.config(3, DEL_REQ, &wanted));
        EXPECT_EQ(list("bob", {"ops"}), world().requests.back().record);
        EXPECT_EQ(uint32_t{DEL_REQ}, world().requests.back().operation);
    }
}

TEST_F(UserMembers, OnlyRolesOfOtherContextsAreQualified) {
    world().vdc = 2;
    write({{"bob#02#"}});
    auto wanted = member("bob", "ops");
    world().reply.record = list("bob", {});
    EXPECT_EQ(0u, cmi_common_user_role_config(3, SET_REQ, &wanted));
    EXPECT_EQ(0x404a0014u, cmi_common_user_locale_config(3, SET_REQ, &wanted));
}

// Users in name order, and the roles of each in the same order.
TEST_F(UserMembers, WalkOverUsersAndRoles) {
    auto at = member("", "left over");
    world().replies[0] = {.record = list("al", {})};
    for (const size_t i : {1, 2, 3}) world().replies[i] = {.record = list("bob", {"net", "a"})};
    world().replies[4] = {.record = list("zoe", {"x"})};
    world().replies[5] = {.record = list("zoe", {"x"})};
    std::vector<std::string> seen;
    uint32_t status;
    while ((status = cmi_common_user_role_config(3, GETNEXT_REQ, &at)) == 0)
        seen.push_back(std::string(at.user_name) + " " + at.name);
    EXPECT_EQ(0x404a002du, status);
    EXPECT_EQ((std::vector<std::string>{"bob a", "bob net", "zoe x"}), seen);

    world().reply = {.status = 0x404a0106};
    at = member("", "");
    EXPECT_EQ(0x404a0106u, cmi_common_user_role_config(3, GETNEXT_REQ, &at));

    at = member("bob", "ops");
    world().requests.clear();
    EXPECT_EQ(0u, cmi_common_user_locale_config(3, GETNEXT_REQ, &at));  // locales have no walk
    EXPECT_TRUE(world().requests.empty());
}

}  // namespace
