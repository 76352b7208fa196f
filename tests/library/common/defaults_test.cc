// Defaults are stored only where there is no value.
#include <algorithm>

#include "tests/fakes/library_test.h"

namespace {

using Defaults = LibraryTest;

std::string stored(uint32_t code) {
    const auto found = world().store.find(number_key(1, code));
    return found == world().store.end() ? "absent" : found->second;
}

TEST_F(Defaults, FillAnEmptyStore) {
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    const std::map<std::string, std::string> expected = {
        {number_key(1, 1), be32(1)},  {number_key(1, 8), be32(1024)}, {number_key(1, 9), be32(0)},
        {number_key(1, 10), be32(0)}, {number_key(1, 13), be32(1)},   {number_key(1, 14), be32(0)},
        {number_key(1, 20), be32(0)}, {number_key(1, 21), be32(0)},   {number_key(1, 2), be32(0)},
    };
    EXPECT_EQ(expected, world().store);
    EXPECT_EQ("setting default values in security configuration", world().traces.at(0));
}

TEST_F(Defaults, NeverTouchAStoredValue) {
    world().store = {
        {number_key(1, 1), be32(0)}, {number_key(1, 2), be32(1)}, {number_key(1, 8), be32(4096)}};
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    EXPECT_EQ(be32(0), stored(1));
    EXPECT_EQ(be32(1), stored(2));
    EXPECT_EQ(be32(4096), stored(8));
    EXPECT_EQ(9u, world().store.size());
    EXPECT_EQ(0, world().card_reads);
}

TEST_F(Defaults, TelnetGoesByTheCard) {
    const struct {
        std::optional<uint16_t> card;
        std::vector<uint16_t> listed;
        uint32_t want;
    } cases[] = {{12, {11, 12}, 1}, {12, {11, 13}, 0}, {12, {}, 0}, {std::nullopt, {0, 12}, 0}};
    for (const auto& c : cases) {
        world() = World();
        world().card_type = c.card;
        world().telnet_card_types = c.listed;
        EXPECT_EQ(0u, security_conf_default_check(kHandle));
        EXPECT_EQ(be32(c.want), stored(2));
        const bool said = world().traces.back() == "Failed to get SW_CARD_ID, assuming non-ferrow: <[41]>";
        EXPECT_EQ(!c.card.has_value(), said);
    }
}

// If a write fails, those before it are kept and those after it are not attempted.
TEST_F(Defaults, StopAtTheFirstFailedWrite) {
    const uint32_t order[] = {1, 8, 9, 10, 13, 14, 20, 21, 2};
    for (size_t written = 0; written < 9; ++written) {
        world() = World();
        world().answer = {{"pss2_store", 0x40480009}};
        world().fail_after = {{"pss2_store", static_cast<int>(written)}};
        EXPECT_EQ(0x40480009u, security_conf_default_check(kHandle));
        EXPECT_EQ(written, world().store.size());
        for (size_t i = 0; i < 9; ++i) EXPECT_EQ(i >= written, stored(order[i]) == "absent") << order[i];
        EXPECT_EQ("error in storing to pss:<[40480009]>", world().traces.back());
        EXPECT_EQ(static_cast<int>(written) + 1,
                  std::count(world().calls.begin(), world().calls.end(), "pss2_store"));
    }
}

// A value that cannot be looked up may exist, so it is not overwritten.
TEST_F(Defaults, SkipWhatCannotBeLookedUp) {
    world().answer = {{"pss2_move2key", 0x4048000c}};
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    EXPECT_TRUE(world().store.empty());
}

TEST_F(Defaults, DebugConfigurationHasNone) {
    EXPECT_EQ(0u, security_debug_conf_default_check());
    EXPECT_TRUE(world().calls.empty());
    EXPECT_EQ("setting default values in security debug configuration", world().traces.at(0));
}

}  // namespace
