// Deleted and replaced secrets remain in none of the store's files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "tests/support/box.h"
#include "tests/support/store.h"

namespace {

// Every value is a sequence of tokens with its number, so that any 27 bytes of it identify it.
constexpr size_t kToken = 14;

std::string make_value(unsigned id, size_t size) {
    std::string value;
    char token[kToken + 1];
    for (unsigned i = 0; value.size() < size; ++i) {
        snprintf(token, sizeof token, "<%07u.%04u>", id % 10000000, i % 10000);
        value += token;
    }
    return value.substr(0, size);
}

std::set<unsigned> ids_in(const std::string& bytes) {
    std::set<unsigned> ids;
    for (size_t at = 0; (at = bytes.find('<', at)) != std::string::npos; ++at) {
        if (at + kToken > bytes.size() || bytes[at + 8] != '.' || bytes[at + kToken - 1] != '>') continue;
        // A page number may look like the start of a token, before one that is cut off by the start of the
        // page.
        if (bytes.find_first_not_of("0123456789", at + 1) != at + 8) continue;
        ids.insert(static_cast<unsigned>(strtoul(bytes.c_str() + at + 1, nullptr, 10)));
        at += kToken - 1;
    }
    return ids;
}

class SqliteSecrets : public testing::TestWithParam<unsigned> {
 protected:
    ~SqliteSecrets() override { pss2_close(handle); }

    // Creates, replaces or deletes one record, of one of the sizes that secrets have.
    void change() {
        constexpr size_t kSizes[] = {136, 69, 1104, 2200, 8193};
        const std::string key = numbered("user", static_cast<unsigned>(random() % 60));
        if (live.contains(key) && random() % 3 == 0) {
            ASSERT_EQ(PSS_OK, erase(handle, key));
            live.erase(key);
            return;
        }
        const unsigned id = ++last_id;
        ASSERT_EQ(PSS_OK, put(handle, key, make_value(id, kSizes[random() % std::size(kSizes)])));
        live[key] = id;
    }

    // The numbers of all values that are in the files, but in no record.
    std::set<unsigned> leftovers() {
        std::set<unsigned> left;
        for (const auto& [name, bytes] : files_in(box.state())) left.merge(ids_in(bytes));
        for (const auto& [key, id] : live) left.erase(id);
        return left;
    }

    Box box;
    uint32_t handle = 0;
    std::mt19937 random{GetParam()};
    std::map<std::string, unsigned> live;
    unsigned last_id = 0;
};

TEST_P(SqliteSecrets, AreErasedOnceTheyAreReplacedOrDeleted) {
    const std::set<unsigned> none;
    ASSERT_EQ(PSS_OK, open_store(handle));
    for (int i = 0; i < 150; ++i) change();
    const auto before = leftovers();
    EXPECT_LT(30u, before.size()) << "the search finds what is not erased yet";
    for (int i = 0; i < 256; ++i) change();
    for (const unsigned id : leftovers())
        EXPECT_FALSE(before.contains(id)) << id << " is left after 256 changes";

    for (int round = 0; round < 30; ++round) {
        for (int i = 0; i < 25; ++i) change();
        ASSERT_EQ(PSS_OK, pss2_checkpoint());
        ASSERT_EQ(none, leftovers()) << "after a checkpoint, round " << round;
    }
    for (int i = 0; i < 25; ++i) change();
    ASSERT_EQ(PSS_OK, pss2_close(handle));
    EXPECT_EQ(none, leftovers()) << "after closing";
    EXPECT_EQ(1u, files_in(box.state()).size());
    ASSERT_EQ(PSS_OK, open_store(handle));
    for (const auto& [key, id] : live) EXPECT_EQ(id, *ids_in(fetch(handle, key)).begin());
    for (const auto& [key, id] : live) erase(handle, key);
    live.clear();
    pss2_checkpoint();
    EXPECT_EQ(none, leftovers()) << "in an empty store";
}

INSTANTIATE_TEST_SUITE_P(Seeds, SqliteSecrets, testing::Range(1u, 5u));

}  // namespace
