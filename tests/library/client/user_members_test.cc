// Roles and locales with a scripted channel: which lists are read and which are written back.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/library/accounts/account_files.h"

namespace {

struct Kind {
    const char* name;
    uint32_t (*config)(uint32_t, uint32_t, common_user_member*);
    int32_t asking, changing;
    uint32_t unknown, not_held, too_many;
};
const Kind kKinds[] = {
    {"role", cmi_common_user_role_config, 5155, 158, 0x404a000d, 0x404a000e, 0x404a0024},
    {"locale", cmi_common_user_locale_config, 5161, 5161, 0x404a004b, 0x404a004c, 0x404a004a},
};

Texts many(int count) {
    Texts names;
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
};

TEST_F(UserMembers, HeldOrNot) {
    for (const Kind& kind : kKinds) {
        SetUp();
        std::string lying = bytes_of(list("bob", many(64)));  // a count out of range is clamped
        memset(lying.data() + 128, 0x7f, 4);
        const std::pair<Reply, uint32_t> cases[] = {
            {{.record = bytes_of(list("bob", {"net", "ops"}))}, 0},
            {{.record = bytes_of(list("bob", {}))}, kind.not_held},
            {{.record = bytes_of(list("bob", {"op"}))}, kind.not_held},
            {{.record = bytes_of(list("bob", {"opss"}))}, kind.not_held},
            {{.record = bytes_of(list("bob", many(64)))}, kind.not_held},
            {{.record = lying}, kind.not_held},
            {{.record = lying.substr(100)}, 0x804a0000 | EPROTO},
            {{.status = -1, .error = ECONNREFUSED}, 0x804a0000 | ECONNREFUSED},
            {{.status = 0x404a0106}, 0x404a0106},
        };
        for (const auto& [reply, want] : cases) {
            world().reply = reply;
            auto held = member("bob", "ops");
            EXPECT_EQ(want, kind.config(3, GET_REQ, &held)) << kind.name << &reply - &cases[0].first;
        }
        const Sent& sent = world().requests.at(0);
        EXPECT_EQ(std::pair(kind.asking, 3u), std::pair(sent.type, sent.connection));
        EXPECT_EQ(bytes_of(list("bob", {})), sent.record);
    }
}

TEST_F(UserMembers, AddingReadsAppendsAndWritesBack) {
    for (const Kind& kind : kKinds) {
        SetUp();
        const auto call = [&](uint32_t operation, const char* user = "bob", const char* name = "ops") {
            auto wanted = member(user, name);
            return kind.config(3, operation, &wanted);
        };
        Texts names = many(63);
        world().replies[0] = {.record = bytes_of(list("bob", names))};
        EXPECT_EQ(0u, call(SET_REQ)) << kind.name;
        names.push_back("ops");
        ASSERT_EQ(2u, world().requests.size());
        EXPECT_EQ(uint32_t{GET_REQ}, world().requests[0].operation);
        EXPECT_EQ(uint32_t{SET_REQ}, world().requests[1].operation);
        EXPECT_EQ(bytes_of(list("bob", names)), world().requests[1].record);
        for (const Sent& sent : world().requests) EXPECT_EQ(kind.changing, sent.type);

        // The user has the name already, or the list is full: nothing is written.
        world().replies[2] = {.record = bytes_of(list("bob", names))};
        EXPECT_EQ(0u, call(SET_REQ));
        const bool says_so = kind.asking != kind.changing;  // for roles only
        EXPECT_EQ(says_so ? 1 : 0, std::ranges::count(world().traces, "Role ops already assigned"));
        world().replies[3] = {.record = bytes_of(list("bob", many(64)))};
        EXPECT_EQ(kind.too_many, call(SET_REQ));
        EXPECT_EQ(4u, world().requests.size());

        world().replies[4] = {.record = bytes_of(list("bob", {}))};
        world().replies[5] = {.status = -1, .error = EPIPE};  // the write fails
        EXPECT_EQ(0x804a0000u | EPIPE, call(SET_REQ));

        EXPECT_EQ(0x404a0014u, call(SET_REQ, "nobody-here"));
        EXPECT_EQ(kind.unknown, call(SET_REQ, "bob", "opera"));
        EXPECT_EQ(kind.unknown, call(DEL_REQ, "bob", "opera"));
        EXPECT_EQ(6u, world().requests.size());

        EXPECT_EQ(0u, call(DEL_REQ));
        EXPECT_EQ(bytes_of(list("bob", {"ops"})), world().requests.back().record);
        EXPECT_EQ(uint32_t{DEL_REQ}, world().requests.back().operation);
    }
}

TEST_F(UserMembers, OnlyRolesOfOtherContextsAreQualified) {
    world().vdc = 2;
    write({{"bob#02#"}});
    auto wanted = member("bob", "ops");
    world().reply.record = bytes_of(list("bob", {}));
    EXPECT_EQ(0u, cmi_common_user_role_config(3, SET_REQ, &wanted));
    EXPECT_EQ(0x404a0014u, cmi_common_user_locale_config(3, SET_REQ, &wanted));
}

// Users in name order, and the roles of each in the same order.
TEST_F(UserMembers, WalkOverUsersAndRoles) {
    auto at = member("", "left over");
    world().replies[0] = {.record = bytes_of(list("al", {}))};
    for (const size_t i : {1, 2, 3}) world().replies[i] = {.record = bytes_of(list("bob", {"net", "a"}))};
    world().replies[4] = {.record = bytes_of(list("zoe", {"x"}))};
    world().replies[5] = {.record = bytes_of(list("zoe", {"x"}))};
    std::string seen;
    uint32_t status;
    while ((status = cmi_common_user_role_config(3, GETNEXT_REQ, &at)) == 0)
        seen += at.user_name + std::string(" ") + at.name + ", ";
    EXPECT_EQ(0x404a002du, status);
    EXPECT_EQ("bob a, bob net, zoe x, ", seen);

    world().reply = {.status = 0x404a0106};
    at = member("", "");
    EXPECT_EQ(0x404a0106u, cmi_common_user_role_config(3, GETNEXT_REQ, &at));

    at = member("bob", "ops");
    world().requests.clear();
    EXPECT_EQ(0u, cmi_common_user_locale_config(3, GETNEXT_REQ, &at));  // locales have no walk
    EXPECT_TRUE(world().requests.empty());
}

}  // namespace
