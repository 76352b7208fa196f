// What services alone do not yet show of the output: names from outside, and a list of nothing.
#include "cli/output.h"

#include <gtest/gtest.h>

namespace quill::cli {
namespace {

TEST(Output, AlignsByCharactersAndKeepsToTheLine) {
    const Table table{"users", {"name", "id", "note"}, {{"jürgen", 7u, ""}, {"a\tb\x1b", 12u, "x"}}};
    EXPECT_EQ(
        "NAME        ID  NOTE\n"
        "jürgen      7\n"
        "a\\x09b\\x1b  12  x\n",
        rendered(table, Form::kTable));
    EXPECT_EQ(
        "{\"users\":[\n"
        "  {\"name\":\"jürgen\",\"id\":7,\"note\":\"\"},\n"
        "  {\"name\":\"a\\tb\\u001b\",\"id\":12,\"note\":\"x\"}\n"
        "]}\n",
        rendered(table, Form::kJson));
}

TEST(Output, ListsNothing) {
    const Table table{"users", {"name"}, {}};
    EXPECT_EQ("NAME\n", rendered(table, Form::kTable));
    EXPECT_EQ("{\"users\":[]}\n", rendered(table, Form::kJson));
}
}  // namespace
}  // namespace quill::cli
