#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using UserLists = LibraryTest;

// Both records have this layout.
security_user_roles list(const std::string& user, const std::vector<std::string>& names = {}) {
    security_user_roles made{};
    memcpy(made.user_name, user.data(), user.size());
    made.num_roles = static_cast<int32_t>(names.size());
    for (size_t i = 0; i < names.size(); ++i) strcpy(made.roles[i], names[i].c_str());
    return made;
}

std::string bytes_of(const security_user_roles& made) {
    return {reinterpret_cast<const char*>(&made), sizeof made};
}

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
        EXPECT_EQ(0x02000000, given.num_roles) << kind.name;  // left big-endian
        std::string value = be32(2) + "ops";
        value.resize(4 + 65);
        value += "net";
        value.resize(134);
        EXPECT_EQ((std::map<std::string, std::string>{{name_key(kind.table, "amy"), value}}), world().store);

        auto read = list("amy", {"old", "names", "in", "the", "record"});
        EXPECT_EQ(0u, kind.config(GET_REQ, read));
        EXPECT_EQ(bytes_of(list("amy", {"ops", "net"})), bytes_of(read));

        // Values that are longer or shorter than their count says.
        world().store[name_key(kind.table, "amy")] = be32(1) + "ops" + std::string(62, '\0') + "stray";
        EXPECT_EQ(0u, kind.config(GET_REQ, read));
        EXPECT_EQ(bytes_of(list("amy", {"ops"})), bytes_of(read));
        world().store[name_key(kind.table, "amy")] = be32(3) + "ops";
        EXPECT_EQ(0u, kind.config(GET_REQ, read));
        EXPECT_EQ(bytes_of(list("amy", {"ops", "", ""})), bytes_of(read));

        // Only the first 127 characters of a name are used.
        auto long_name = list(std::string(127, 'n') + "x", {"a"});
        EXPECT_EQ(0u, kind.config(SET_REQ, long_name));
        EXPECT_TRUE(world().store.contains(name_key(kind.table, std::string(127, 'n'))));

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

TEST_F(UserLists, FailuresDiffer) {
    auto record = list("amy", {"a", "b", "c"});
    EXPECT_EQ(0x404a0014u, roles(GET_REQ, record));
    EXPECT_EQ(0x03000000, record.num_roles);
    EXPECT_EQ((std::vector<std::string>{"In security_user_roles_config:", "GET for user:amy roles",
                                        "status for the operation:<[404a0014]>, desc text of 404a0014"}),
              world().traces);
    world().traces.clear();
    record = list("amy", {"a", "b", "c"});
    EXPECT_EQ(0x404a0014u, locales(GET_REQ, record));
    EXPECT_EQ(bytes_of(list("amy", {"a", "b", "c"})), bytes_of(record));
    EXPECT_EQ((std::vector<std::string>{"GET for user:amy locales", "User not present",
                                        "rcode != SUCCESS GET num_locales 3"}),
              world().traces);
    world().traces.clear();
    EXPECT_EQ(0u, locales(SET_REQ, record));
    record.num_roles = 1;
    EXPECT_EQ(0u, roles(SET_REQ, record));
    EXPECT_EQ((std::vector<std::string>{
                  "SET for user:amy 3 locales", "In security_user_roles_config:", "SET for user:amy, 1 roles",
                  "security_user_roles_config:role is a", "status for the operation:<[0]>, desc text of 0"}),
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
    at = list("amy");
    EXPECT_EQ(0u, locales(GETNEXT_REQ, at));
    EXPECT_EQ(bytes_of(list("bob", {"bob"})), bytes_of(at));
    EXPECT_EQ(0u, locales(GETNEXT_REQ, at));  // the last key of the store
    EXPECT_EQ(bytes_of(list("bob", {"bob"})), bytes_of(at));
    world().store[number_key(30, 22)] = be32(1) + "8080";
    EXPECT_EQ(0u, locales(GETNEXT_REQ, at));
    EXPECT_EQ(1, at.num_roles);
    EXPECT_STREQ("8080", at.roles[0]);
    EXPECT_EQ(std::string("\0\0\0\x16", 4), std::string(at.user_name, 4));
}

}  // namespace
