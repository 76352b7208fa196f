#include "library/common/trace.h"

#include "tests/fakes/library_test.h"

namespace {

using quill::trace;
using Trace = LibraryTest;

TEST_F(Trace, GoesToTheSinksThatWantIt) {
    for (const auto& [history, debug] :
         {std::pair{true, true}, {true, false}, {false, true}, {false, false}}) {
        world() = World();
        world().history = history;
        world().debug = debug;
        trace("SET for %s with value:%x", "%s%n%d", 255u);
        const std::string text = "SET for %s%n%d with value:ff";  // a text of others is never a format
        EXPECT_EQ(history ? Texts{bytes_of(102) + text + std::string(1, '\0')} : Texts(), world().events);
        EXPECT_EQ(debug ? Texts{"1 fake module 0 " + text} : Texts(), world().printed);
    }
}

TEST_F(Trace, HistoryIsBoundedAndTheDebugOutputIsNot) {
    world().debug = true;
    for (const size_t length : {510u, 511u, 512u, 2000u}) {
        const std::string text(length, 'x');
        trace("%s", text.c_str());
        EXPECT_EQ(text.substr(0, 511), world().traces.back()) << length;
        EXPECT_EQ("1 fake module 0 " + text, world().printed.back()) << length;
        EXPECT_EQ(std::min<size_t>(length, 511) + 5, world().events.back().size()) << length;
    }
}

}  // namespace
