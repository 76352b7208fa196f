#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using UserLists = LibraryTest;

uint32_t roles(uint32_t operation, security_user_roles& record) {
    return security_user_roles_config(kHandle, operation, &record);
}
uint32_t locales(uint32_t operation, security_user_roles& record) {
    return security_user_locales_config(kHandle, operation,
                                        reinterpret_cast<security_user_locales*>(&record));
}

struct Kind {
    const char* name;
    uint32_t (*config)(uint32_t, security_user_roles&);
    uint32_t table;
};
const Kind kKinds[] = {{"roles", roles, 20}, {"locales", locales, 27}};

TEST_F(UserLists, AreStoredUpToTheirCountAndComeBackWhole) {
    for (const Kind& kind : kKinds) {
        world() = World();
        auto given = list("amy", {"ops", "net"});
        strcpy(given.roles[2], "beyond the count");
        EXPECT_EQ(0u, kind.config(SET_REQ, given));
        auto& stored = world().store[name_key(kind.table, "amy")];
        EXPECT_EQ(padded(be32(2) + padded("ops", 65) + "net", 134), stored) << kind.name;

        // The last two values are longer and shorter than their count says.
        auto read = list("amy", {"old", "names", "in", "the", "record"});
        const std::pair<std::string, Texts> cases[] = {{stored, {"ops", "net"}},
                                                       {be32(1) + padded("ops", 65) + "stray", {"ops"}},
                                                       {be32(3) + "ops", {"ops", "", ""}}};
        for (const auto& [value, names] : cases) {
            stored = value;
            EXPECT_EQ(0u, kind.config(GET_REQ, read));
            EXPECT_EQ(bytes_of(list("amy", names)), bytes_of(read)) << kind.name;
        }
        auto empty = list("bob");
        EXPECT_EQ(0u, kind.config(SET_REQ, empty));
        EXPECT_EQ(be32(0), world().store[name_key(kind.table, "bob")]);
    }
}

TEST_F(UserLists, CountsOutOfRangeTouchNothing) {
    for (const Kind& kind : kKinds)
        for (const int32_t count : {-1, 65, INT32_MAX, INT32_MIN}) {
            auto bad = list("amy");
            bad.num_roles = count;
            EXPECT_EQ(0x404a0105u, kind.config(SET_REQ, bad)) << kind.name;
            EXPECT_EQ(count, bad.num_roles);
            EXPECT_TRUE(world().store.empty());
        }
}

TEST_F(UserLists, AbsentLocalesAreTraced) {
    auto record = list("amy", {"a", "b", "c"});
    EXPECT_EQ(0x404a0014u, locales(GET_REQ, record));
    EXPECT_EQ((Texts{"GET for user:amy locales", "User not present", "rcode != SUCCESS GET num_locales 3"}),
              world().traces);
}

// There is no end of the table: callers must know where to stop.
TEST_F(UserLists, LocalesAreWalkedIntoWhateverFollows) {
    for (const char* name : {"amy", "bob"}) {
        auto record = list(name, {name});
        ASSERT_EQ(0u, locales(SET_REQ, record));
    }
    auto at = list("");
    EXPECT_EQ(0u, locales(GETNEXT_REQ, at));  // the key does not exist: nothing is read
    EXPECT_EQ(bytes_of(list("")), bytes_of(at));
    at = list("bob");
    world().store[number_key(30, 22)] = be32(1) + "8080";
    EXPECT_EQ(0u, locales(GETNEXT_REQ, at));
    EXPECT_EQ(1, at.num_roles);
    EXPECT_STREQ("8080", at.roles[0]);
    EXPECT_EQ(std::string("\0\0\0\x16", 4), std::string(at.user_name, 4));
}

}  // namespace
