// The guarantees of quillplatform/pss.h, for the SQLite store and, with QUILL_FAKE_STORE, for the fake that
// the library is tested with.
#include <gtest/gtest.h>

#include "tests/support/store.h"

#ifdef QUILL_FAKE_STORE
#include "tests/fakes/world.h"
#define StoreContract FakeStoreContract
#else
#include "tests/support/box.h"
#endif

namespace {

class StoreContract : public testing::Test {
 protected:
#ifdef QUILL_FAKE_STORE
    StoreContract() : store(kHandle) { world() = World(); }
#else
    StoreContract() { EXPECT_EQ(PSS_OK, open_store(store)); }
    ~StoreContract() override { pss2_close(store); }
    Box box;
#endif
    std::string here() const { return Cursor{store}.here(); }
    std::string move(const std::string& key) const { return Cursor{store}.move(key); }
    std::string next() const { return Cursor{store}.next(); }

    uint32_t store = 0;
};

TEST_F(StoreContract, AValueIsWhatWasLastStored) {
    EXPECT_EQ("[40480003]", fetch(store, "key"));
    EXPECT_EQ(PSS_NO_KEY, erase(store, "key"));
    for (const std::string& value : {std::string("first"), std::string("a longer second"), std::string("3rd"),
                                     std::string(), std::string("with\0zeros\0", 11)}) {
        EXPECT_EQ(PSS_OK, put(store, "key", value));
        EXPECT_EQ(value, fetch(store, "key"));
    }
    EXPECT_EQ("[40480003]", fetch(store, "ke")) << "a prefix is another key";
    EXPECT_EQ("[40480003]", fetch(store, std::string("key\0", 4)));
    EXPECT_EQ(PSS_OK, erase(store, "key"));
    EXPECT_EQ("[40480003]", fetch(store, "key"));
    EXPECT_EQ(PSS_NO_KEY, erase(store, "key"));
}

TEST_F(StoreContract, TheLongestKeyAndValueAreStored) {
    const std::string key(PSS_MAX_KEY, 'k');
    std::string value(PSS_MAX_VALUE, 'v');
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<char>(i * 7 + i / 256);
    EXPECT_EQ(PSS_OK, put(store, key, value));
    EXPECT_TRUE(value == fetch(store, key));
    EXPECT_EQ("[40480003]", fetch(store, key.substr(1)));
    EXPECT_EQ("after " + key + "=" + value, move("a"));
}

// Bytes are unsigned, 0 and 0xff are like any other, and a prefix comes first.
TEST_F(StoreContract, TheCursorFollowsTheByteOrderOfKeys) {
    using namespace std::string_literals;
    const std::string ordered[] = {"\0"s, "\0\0"s, "\0\1"s, "A",    "A\0"s, "AA",
                                   "B",   "a",     "\x7f",  "\x80", "\xff", "\xff\xff"};
    for (const size_t i : {7, 2, 11, 0, 9, 4, 6, 1, 10, 3, 8, 5})
        ASSERT_EQ(PSS_OK, put(store, ordered[i], "v"));
    EXPECT_EQ("at " + ordered[0] + "=v", move(ordered[0]));
    for (size_t i = 1; i < std::size(ordered); ++i) EXPECT_EQ(ordered[i] + "=v", next()) << i;
    EXPECT_EQ("none", next());
}

TEST_F(StoreContract, MovingToAKey) {
    EXPECT_EQ("after none", move("any")) << "an empty store";
    put(store, "bb", "1");
    put(store, "dd", "2");
    EXPECT_EQ("at bb=1", move("bb"));
    EXPECT_EQ("after bb=1", move("a"));
    EXPECT_EQ("after dd=2", move("bbb"));
    EXPECT_EQ("at dd=2", move("dd"));
    EXPECT_EQ("after none", move("dda"));
    EXPECT_EQ("none", next()) << "a cursor without a position has no next record";
    EXPECT_EQ("none", here());
    EXPECT_EQ("at bb=1", move("bb"));
    EXPECT_EQ("dd=2", next());
    EXPECT_EQ("none", next());
    EXPECT_EQ("none", here()) << "no position after the last record";
    EXPECT_EQ("none", next());
}

TEST_F(StoreContract, ACursorStaysValidWhenItsRecordIsDeleted) {
    for (const char* key : {"a", "b", "c", "d"}) put(store, key, "1");
    move("b");
    erase(store, "b");
    EXPECT_EQ("none", here());
    EXPECT_EQ("c=1", next()) << "the key that followed";
    erase(store, "c");
    erase(store, "d");
    EXPECT_EQ("none", next());

    for (const char* key : {"b", "c", "d"}) put(store, key, "2");
    move("b");
    erase(store, "b");
    put(store, "b", "again");
    EXPECT_EQ("b=again", here()) << "the same key, stored again";
    erase(store, "b");
    put(store, "bb", "came after");
    EXPECT_EQ("bb=came after", next()) << "the next key at the time of the call";
}

TEST_F(StoreContract, ACursorReadsThePresentValue) {
    put(store, "a", "old");
    put(store, "c", "old");
    move("a");
    put(store, "a", "a longer new one");
    put(store, "c", "new");
    put(store, "b", "between");
    EXPECT_EQ("a=a longer new one", here());
    EXPECT_EQ("b=between", next());
    EXPECT_EQ("[40480003]", fetch(store, "elsewhere"));
    EXPECT_EQ("b=between", here()) << "reading elsewhere does not move the cursor";
    EXPECT_EQ("c=new", next());
}

TEST_F(StoreContract, InvalidArgumentsAreRefused) {
    const std::string name = "a";
    const pss_descriptor key = describe(name);
    put(store, "a", "1");
    put(store, "b", "2");
    move("a");
    const uint32_t good = store;
    for (const uint32_t handle : {good, 0u, good + 1, 0xffffffffu}) {
        const uint32_t want = handle == good ? PSS_BAD_ARGUMENT : PSS_BAD_HANDLE;
        uint32_t moving = handle, status = 0x55;
        EXPECT_EQ(want, pss2_delete(handle, &key, 2));
        EXPECT_EQ(want, pss2_delete(handle, &key, 0));
        EXPECT_EQ(want, pss2_move2key(&moving, 2, &key, &status));
        EXPECT_EQ(want, pss2_move2location(&moving, PSS_MODE, 2, &status));
        EXPECT_EQ(want, pss2_move2location(&moving, 0, PSS_NEXT, &status));
        EXPECT_EQ(want, status);
        if (handle == good) continue;
        EXPECT_EQ("[40480001]", fetch(handle, "a"));
        EXPECT_EQ(want, put(handle, "a", "2"));
        EXPECT_EQ(nullptr, pss2_getkey(handle, &status));
        EXPECT_EQ(want, status);
        EXPECT_EQ(nullptr, pss2_getvalue(handle, &status));
        EXPECT_EQ(want, status);
        EXPECT_EQ(want, pss_version_set(handle, 1, 7));
    }
    EXPECT_EQ("a=1", here());
    EXPECT_EQ("b=2", next());
}

}  // namespace
