// Defaults are stored only where there is no value.
#include <algorithm>
#include <span>

#include "tests/fakes/library_test.h"

namespace {

using Defaults = LibraryTest;

// In the order in which they are written.
const std::pair<uint32_t, uint32_t> kDefaults[] = {{1, 1},  {8, 1024}, {9, 0},  {10, 0}, {13, 1},
                                                   {14, 0}, {20, 0},   {21, 0}, {2, 0}};

std::map<std::string, std::string> first(size_t count) {
    std::map<std::string, std::string> store;
    for (const auto& [code, value] : std::span(kDefaults).first(count))
        store[number_key(1, code)] = be32(value);
    return store;
}

TEST_F(Defaults, FillAnEmptyStoreUntilAWriteFails) {
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    EXPECT_EQ(first(9), world().store);
    EXPECT_EQ("setting default values in security configuration", world().traces.at(0));
    for (size_t written = 0; written < 9; ++written) {
        world() = World();
        world().answer = {{"pss2_store", 0x40480009}};
        world().fail_after = {{"pss2_store", static_cast<int>(written)}};
        EXPECT_EQ(0x40480009u, security_conf_default_check(kHandle));
        EXPECT_EQ(first(written), world().store);
        EXPECT_EQ("error in storing to pss:<[40480009]>", world().traces.back());
        EXPECT_EQ(static_cast<int>(written) + 1, std::ranges::count(world().calls, "pss2_store"));
    }
}

TEST_F(Defaults, NeverTouchAStoredValue) {
    auto expected = first(9);
    for (const auto& [code, value] : {std::pair{1u, 0u}, {2u, 1u}, {8u, 4096u}})
        expected[number_key(1, code)] = world().store[number_key(1, code)] = be32(value);
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    EXPECT_EQ(expected, world().store);
    EXPECT_EQ(0, world().card_reads);

    SetUp();  // a value that cannot be looked up may exist
    world().answer = {{"pss2_move2key", 0x4048000c}};
    EXPECT_EQ(0u, security_conf_default_check(kHandle));
    EXPECT_TRUE(world().store.empty());
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
        EXPECT_EQ(be32(c.want), world().store[number_key(1, 2)]);
        const bool said = world().traces.back() == "Failed to get SW_CARD_ID, assuming non-ferrow: <[41]>";
        EXPECT_EQ(!c.card.has_value(), said);
    }
}

TEST_F(Defaults, DebugConfigurationHasNone) {
    EXPECT_EQ(0u, security_debug_conf_default_check());
    EXPECT_TRUE(world().calls.empty());
    EXPECT_EQ("setting default values in security debug configuration", world().traces.at(0));
}

}  // namespace
