#include "library/common/store_access.h"

#include <sys/stat.h>

#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using quill::fetch_next;
using quill::Key;
using StoreAccess = LibraryTest;

constexpr uint32_t kEnd = 0x404a001c;

TEST_F(StoreAccess, AFailedOpenIsRetriedOnceWithTheCreateFlag) {
    const mode_t before = umask(027);
    uint32_t handle = 0;
    EXPECT_EQ(0u, security_pss_create(&handle, "security", 0xa, 0xb));
    EXPECT_EQ(kHandle, handle);
    EXPECT_EQ(0u, umask(before)) << "the mask stays 0";
    world().answer = {{"pss2_open", 0x40480006}};
    EXPECT_EQ(0x40480006u, security_pss_create(&handle, "s", 0, 0));
    EXPECT_EQ(1019u, handle) << "the second attempt's";
    EXPECT_EQ((Texts{"pss2_open security 3 42 0 [a b 0 100001]", "pss2_open s 3 42 0 [0 0 0 100001]",
                     "pss2_open s 19 42 0 [0 0 0 100001]"}),
              world().calls);
}

TEST_F(StoreAccess, VersionStamp) {
    EXPECT_EQ(0, set_pss_version(kHandle));
    EXPECT_EQ(0x100001u, world().version);
    world().answer = {{"pss_version_set", 0x4048000c}};
    EXPECT_EQ(-1, set_pss_version(kHandle));
}

// Returns the key that a move finds, or "none".
std::string found(const pss_descriptor* key) {
    return key == nullptr ? "none" : std::string(static_cast<char*>(key->bytes), key->length);
}

TEST_F(StoreAccess, Move2Key) {
    world().store = {{"bbbb", "1"}};
    // The status of reading the key is returned, except after an absent key, which must stay known to be
    // absent.
    const struct {
        const char *key, *failing;
        uint32_t status;
        const char *found, *traces;
    } cases[] = {
        {"bbbb", "", 0, "bbbb", "rcode = 0 syserr2str = text of 0"},
        {"bbbb", "pss2_getkey", 0x4048000c, "none", "rcode = 0 syserr2str = text of 0"},
        {"bbbb", "pss2_move2key", 0x4048000c, "none",
         "rcode = 4048000c syserr2str = text of 4048000c|security_pss_move2key: else part "},
        {"aaaa", "", 0x40480003, "bbbb",  // the key that follows
         "rcode = 40480003 syserr2str = text of 40480003|security_pss_move2key: calling pss2_getkey "},
        {"aaaa", "pss2_getkey", 0x40480003, "none",
         "rcode = 40480003 syserr2str = text of 40480003|security_pss_move2key: calling pss2_getkey "},
        {"cccc", "", 0x40480003, "none",
         "rcode = 40480003 syserr2str = text of 40480003|security_pss_move2key: calling pss2_getkey "},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        world().answer = {{c.failing, 0x4048000c}};
        char bytes[5];
        const pss_descriptor key{strcpy(bytes, c.key), 4};
        uint32_t status = 0x55;
        EXPECT_EQ(c.found, found(security_pss_move2key(kHandle, &key, &status))) << c.key << c.failing;
        EXPECT_EQ(c.status, status) << c.key << c.failing;
        std::string traces;
        for (const std::string& trace : world().traces) traces += "|" + trace;
        EXPECT_EQ("|security_pss_move2key: " + std::string(c.traces), traces);
    }
}

TEST_F(StoreAccess, Move2Location) {
    world().store = {{"aaaa", "1"}, {"bbbb", "2"}};
    const struct {
        const char *key, *failing;
        uint32_t location;
        std::optional<uint32_t> result;
        uint32_t want;
        const char* found;
    } cases[] = {
        {"aaaa", "", 3, {}, 0, "bbbb"},
        {"bbbb", "", 3, {}, 0x40480003, "none"},
        {"aaaa", "", 3, 1, 0, "none"},                             // the result alone fails
        {"aaaa", "pss2_move2location", 3, 0, 0x4048000c, "none"},  // the status alone
        {"aaaa", "pss2_getkey", 3, {}, 0x4048000c, "none"},
        {"aaaa", "", 5, {}, PSS_BAD_ARGUMENT, "none"},
    };
    for (const auto& c : cases) {
        char bytes[5];
        const pss_descriptor key{strcpy(bytes, c.key), 4};
        uint32_t status = 0;
        world().answer.clear();
        security_pss_move2key(kHandle, &key, &status);
        world().answer = {{c.failing, 0x4048000c}};
        world().move_result = c.result;
        EXPECT_EQ(c.found, found(security_pss_move2location(kHandle, c.location, &status))) << c.failing;
        EXPECT_EQ(c.want, status) << c.failing;
        char trace[80];  // it names the other function
        const uint32_t moved = strcmp(c.failing, "pss2_getkey") == 0 ? 0 : c.want;
        snprintf(trace, sizeof trace, "security_pss_move2key: rcode = %x syserr2str = text of %x", moved,
                 moved);
        EXPECT_EQ(trace, world().traces.back());
    }
}

struct Named {
    char name[128];
    char value[8];
};

uint32_t next(Named& record) {
    return fetch_next(kHandle, Key(5, record.name), record.name, {record.value, sizeof record.value}, kEnd);
}

TEST_F(StoreAccess, StoredBytesOfAnotherLengthNeitherOverflowNorLinger) {
    const std::string longest(127, 'n');
    const struct {
        std::string key, value, want_name, want_value;
    } cases[] = {
        {name_key(5, "amy"), "ab", "amy", padded("ab", 8)},
        {name_key(5, "amy"), "0123456789", "amy", "01234567"},
        {name_key(5, "amy"), "", "amy", padded("", 8)},
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
        EXPECT_EQ(c.want_value, bytes_of(memory.record.value));
        EXPECT_EQ(std::string(16, '#'), bytes_of(memory.guard));
    }
    world().store = {{std::string("\0\0\5", 3), "x"}};  // shorter than a table number
    Named record{};
    EXPECT_EQ(kEnd, next(record));
}

}  // namespace
