#include "library/common/store_access.h"

#include <sys/stat.h>

#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using quill::fetch_next;
using quill::Key;
using StoreAccess = LibraryTest;

constexpr uint32_t kEnd = 0x404a001c;

std::vector<std::string> opens() {
    std::vector<std::string> found;
    for (const auto& call : world().calls)
        if (call.starts_with("pss2_open")) found.push_back(call);
    return found;
}

// ---- Opening

TEST_F(StoreAccess, AStoreThatOpensIsNotCreated) {
    const mode_t before = umask(027);
    uint32_t handle = 0;
    EXPECT_EQ(0u, security_pss_create(&handle, "security", 0xa, 0xb));
    EXPECT_EQ(kHandle, handle);
    EXPECT_EQ(std::vector<std::string>{"pss2_open security 3 42 0 [a b 0 100001]"}, opens());
    EXPECT_EQ(0u, umask(before)) << "the mask stays 0";
}

TEST_F(StoreAccess, AFailedOpenIsRetriedOnceWithTheCreateFlag) {
    const std::vector<std::string> both = {"pss2_open s 3 42 0 [0 0 0 100001]",
                                           "pss2_open s 19 42 0 [0 0 0 100001]"};
    uint32_t handle = 0;
    world().answer = {{"pss2_open", 0x40480006}};
    EXPECT_EQ(0x40480006u, security_pss_create(&handle, "s", 0, 0));
    EXPECT_EQ(both, opens());
    EXPECT_EQ(1019u, handle) << "the second attempt's";
}

TEST_F(StoreAccess, VersionStamp) {
    EXPECT_EQ(0, set_pss_version(kHandle));
    EXPECT_EQ(0x100001u, world().version);
    world().answer = {{"pss_version_set", 0x4048000c}};
    EXPECT_EQ(-1, set_pss_version(kHandle));
}

// ---- Positioning

TEST_F(StoreAccess, Move2Key) {
    world().store = {{"bbbb", "1"}};
    const struct {
        const char* what;
        const char* key;
        uint32_t failure, status;
        const char* found;
        std::vector<std::string> traces;
    } cases[] = {
        {"the key itself", "bbbb", 0, 0, "bbbb", {"security_pss_move2key: rcode = 0 syserr2str = text of 0"}},
        {"the key that follows",
         "aaaa",
         0,
         0x40480003,
         "bbbb",
         {"security_pss_move2key: rcode = 40480003 syserr2str = text of 40480003",
          "security_pss_move2key: calling pss2_getkey "}},
        {"nothing follows",
         "cccc",
         0,
         0x40480003,
         nullptr,
         {"security_pss_move2key: rcode = 40480003 syserr2str = text of 40480003",
          "security_pss_move2key: calling pss2_getkey "}},
        {"failure",
         "bbbb",
         0x4048000c,
         0x4048000c,
         nullptr,
         {"security_pss_move2key: rcode = 4048000c syserr2str = text of 4048000c",
          "security_pss_move2key: else part "}},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        if (c.failure != 0) world().answer = {{"pss2_move2key", c.failure}};
        char bytes[5];
        strcpy(bytes, c.key);
        const pss_descriptor key{bytes, 4};
        uint32_t status = 0x55;
        const pss_descriptor* found = security_pss_move2key(kHandle, &key, &status);
        EXPECT_EQ(c.status, status) << c.what;
        EXPECT_EQ(c.traces, world().traces) << c.what;
        const std::string at =
            found == nullptr ? "" : std::string(static_cast<char*>(found->bytes), found->length);
        EXPECT_EQ(c.found == nullptr ? "" : c.found, at) << c.what;
    }
}

TEST_F(StoreAccess, Move2LocationTracesTheOtherFunctionsName) {
    world().store = {{"aaaa", "1"}, {"bbbb", "2"}};
    char bytes[] = "aaaa";
    const pss_descriptor key{bytes, 4};
    uint32_t status = 0;
    security_pss_move2key(kHandle, &key, &status);
    world().traces.clear();
    const pss_descriptor* found = security_pss_move2location(kHandle, 3, &status);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(0, memcmp("bbbb", found->bytes, 4));
    EXPECT_EQ(nullptr, security_pss_move2location(kHandle, 3, &status));
    EXPECT_EQ(0x40480003u, status);
    EXPECT_EQ(
        (std::vector<std::string>{"security_pss_move2key: rcode = 0 syserr2str = text of 0",
                                  "security_pss_move2key: rcode = 40480003 syserr2str = text of 40480003"}),
        world().traces);
}

TEST_F(StoreAccess, Move2LocationFailsByResultOrStatus) {
    world().store = {{"aaaa", "1"}, {"bbbb", "2"}};
    char bytes[] = "aaaa";
    const pss_descriptor key{bytes, 4};
    const struct {
        const char* what;
        uint32_t location, result, status, want;
    } cases[] = {{"the result alone", 3, 1, 0, 0},
                 {"the status alone", 3, 0, 0x4048000c, 0x4048000c},
                 {"another location", 5, PSS_BAD_ARGUMENT, 0, PSS_BAD_ARGUMENT}};
    for (const auto& c : cases) {
        world().answer.clear();
        uint32_t status = 0;
        security_pss_move2key(kHandle, &key, &status);
        if (c.status != 0) world().answer = {{"pss2_move2location", c.status}};
        world().move_result = c.result;
        EXPECT_EQ(nullptr, security_pss_move2location(kHandle, c.location, &status)) << c.what;
        EXPECT_EQ(c.want, status) << c.what;
    }
}

// The status of reading the key is returned, except after an absent key, which must stay known to be absent.
TEST_F(StoreAccess, AKeyThatCannotBeReadIsReported) {
    world().store = {{"bbbb", "1"}, {"cccc", "2"}};
    world().answer = {{"pss2_getkey", 0x4048000c}};
    char bytes[] = "bbbb";
    pss_descriptor key{bytes, 4};
    uint32_t status = 0;
    EXPECT_EQ(nullptr, security_pss_move2key(kHandle, &key, &status));
    EXPECT_EQ(0x4048000cu, status);
    EXPECT_EQ(nullptr, security_pss_move2location(kHandle, 3, &status));
    EXPECT_EQ(0x4048000cu, status);
    bytes[0] = 'a';
    EXPECT_EQ(nullptr, security_pss_move2key(kHandle, &key, &status));
    EXPECT_EQ(0x40480003u, status);
}

// ---- Walks

struct Named {
    char name[128];
    char value[8];
};

uint32_t next(Named& record) {
    return fetch_next(kHandle, Key(5, record.name), record.name, {record.value, sizeof record.value}, kEnd);
}

TEST_F(StoreAccess, NumbersWalkInNumberOrder) {
    for (const uint32_t number : {256u, 2u, 0x80000000u})
        world().store[number_key(22, number)] = std::string("abcd");
    int32_t number = 0;
    char value[4];
    std::vector<int32_t> visited;
    while (fetch_next(kHandle, Key(22, number), number, {value, 4}, kEnd) == 0) visited.push_back(number);
    EXPECT_EQ((std::vector<int32_t>{2, 256, INT32_MIN}), visited);
}

// ---- Limits of keys and values

TEST_F(StoreAccess, AnUnterminatedNameIsKeyedByItsFirst127Characters) {
    Named record;
    memset(record.name, 'n', sizeof record.name);
    memcpy(record.value, "overrun", 8);
    ASSERT_EQ(0u, quill::store(kHandle, Key(5, record.name), {record.value, 8}));
    EXPECT_EQ(name_key(5, std::string(127, 'n')), world().store.begin()->first);
    EXPECT_EQ(132u, world().store.begin()->first.size());
}

TEST_F(StoreAccess, StoredBytesOfAnotherLengthNeitherOverflowNorLinger) {
    const std::string longest(127, 'n');
    const struct {
        std::string key, value, want_name, want_value;
    } cases[] = {
        {name_key(5, "amy"), "ab", "amy", std::string("ab\0\0\0\0\0\0", 8)},
        {name_key(5, "amy"), "0123456789", "amy", "01234567"},
        {name_key(5, "amy"), "", "amy", std::string(8, '\0')},
        {name_key(5, "amy").substr(0, 6), "v2345678", "am", "v2345678"},     // a key cut short
        {be32(5) + std::string(200, 'n'), "v2345678", longest, "v2345678"},  // one too long
    };
    for (const auto& c : cases) {
        world().store = {{c.key, c.value}};
        struct {
            Named record;
            char guard[16];
        } memory;
        memset(&memory, '#', sizeof memory);
        memory.record.name[0] = '\0';
        ASSERT_EQ(0u, next(memory.record));
        EXPECT_EQ(c.want_name, memory.record.name);
        EXPECT_EQ(c.want_value, std::string(memory.record.value, 8));
        EXPECT_EQ(std::string(16, '#'), std::string(memory.guard, 16));
    }
    world().store = {{std::string("\0\0\5", 3), "x"}};  // shorter than a table number
    Named record{};
    EXPECT_EQ(kEnd, next(record));
}

}  // namespace
