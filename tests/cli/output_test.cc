// What services alone do not yet show of the output: names from outside, and a list of nothing.
#include "cli/output.h"

#include <gtest/gtest.h>

#include <memory>

#include "cli/words.h"

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

TEST(Output, SaysNothingToTheTerminal) {
    for (const auto& [text, printed] : std::initializer_list<std::pair<std::string, std::string>>{
             {"\x7f", "\\x7f"},
             {"a\xc2\x9b[", "a\\xc2\\x9b["},
             {"\xc2\xa0\xdf\xbf\xe0\xa0\x80\xf4\x8f\xbf\xbf", "\xc2\xa0\xdf\xbf\xe0\xa0\x80\xf4\x8f\xbf\xbf"},
             {"\x9b[", "\\x9b["},
             {"\xc1\xbf", "\\xc1\\xbf"},
             {"\xe0\x82\x9b", "\\xe0\\x82\\x9b"},
             {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
             {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
             {"\xf9\x80\x80\x80", "\\xf9\\x80\\x80\\x80"},
             {"\xc3", "\\xc3"},
             {"\xe2\x82z", "\\xe2\\x82z"}})
        EXPECT_EQ(printed, printable(text));
}

TEST(Output, ListsNothing) {
    const Table table{"users", {"name"}, {}};
    EXPECT_EQ("NAME\n", rendered(table, Form::kTable));
    EXPECT_EQ("{\"users\":[]}\n", rendered(table, Form::kJson));
}

TEST(Output, StreamsARowALine) {
    const auto said = [](Form form) {
        auto rows = std::make_shared<std::vector<std::vector<Cell>>>(
            std::vector<std::vector<Cell>>{{"wider than it", 12u}, {"a\nb", 7u}});
        const Answer answer = Stream{{{"user", 6}, {"id", 0}}, [rows]() -> std::optional<std::vector<Cell>> {
                                         if (rows->empty()) return std::nullopt;
                                         const auto row = rows->back();
                                         rows->pop_back();
                                         return row;
                                     }};
        testing::internal::CaptureStdout();
        EXPECT_EQ(Exit::kOk, say(answer, form));
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ("USER    ID\na\\x0ab  7\nwider than it  12\n", said(Form::kTable));
    EXPECT_EQ("{\"user\":\"a\\nb\",\"id\":7}\n{\"user\":\"wider than it\",\"id\":12}\n", said(Form::kJson));
}
}  // namespace
}  // namespace quill::cli
