#include "library/common/trace.h"

#include "tests/fakes/library_test.h"

namespace {

using quill::trace;
using Trace = LibraryTest;

TEST_F(Trace, GoesToTheSinksThatWantIt) {
    const struct {
        bool history, debug;
    } cases[] = {{true, true}, {true, false}, {false, true}, {false, false}};
    for (const auto& c : cases) {
        world() = World();
        world().history = c.history;
        world().debug = c.debug;
        trace("SET for %s with value:%d", "ssh", 5);
        const std::string text = "SET for ssh with value:5";
        EXPECT_EQ(c.history ? std::vector{text} : std::vector<std::string>(), world().traces);
        EXPECT_EQ(c.debug ? std::vector{"1 fake module 0 " + text} : std::vector<std::string>(),
                  world().printed);
    }
}

TEST_F(Trace, EventIsTheSubtypeAndTheTerminatedText) {
    trace("ab%x", 255u);
    const uint32_t subtype = 102;
    std::string expected(reinterpret_cast<const char*>(&subtype), sizeof subtype);
    expected += std::string("abff", 5);
    ASSERT_EQ(1u, world().events.size());
    EXPECT_EQ(expected, world().events[0]);
}

TEST_F(Trace, HistoryIsBoundedAndTheDebugOutputIsNot) {
    world().debug = true;
    for (const size_t length : {510u, 511u, 512u, 2000u}) {
        world().traces.clear();
        world().printed.clear();
        const std::string text(length, 'x');
        trace("%s", text.c_str());
        EXPECT_EQ(text.substr(0, 511), world().traces.at(0)) << length;
        EXPECT_EQ("1 fake module 0 " + text, world().printed.at(0)) << length;
        EXPECT_EQ(std::min<size_t>(length, 511) + 5, world().events.back().size()) << length;
    }
}

TEST_F(Trace, TextsOfOthersAreNeverFormats) {
    trace("user:%s", "%s%n%d");
    EXPECT_EQ("user:%s%n%d", world().traces.at(0));
}

TEST_F(Trace, StatusIsWrittenAsItIsSearchedFor) {
    EXPECT_STREQ("<[404a0014]>", quill::status_text(0x404a0014));
    EXPECT_STREQ("<[0]>", quill::status_text(0));
}

}  // namespace
