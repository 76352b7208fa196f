// Output of names from outside, streams, and completions for a shell.
#include "cli/output.h"

#include <gtest/gtest.h>

#include <memory>

#include "cli/words.h"
#include "tests/cli/quillsec.h"

namespace quill::cli {
namespace {

TEST(Output, AlignsByCharactersAndEscapesLineBreaks) {
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

TEST(Output, EscapesControlCharacters) {
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
             {"user\u202exfdp", "user\\xe2\\x80\\xaexfdp"},
             {"\u061c\u200b\u2029\u2066\ufeff",
              "\\xd8\\x9c\\xe2\\x80\\x8b\\xe2\\x80\\xa9\\xe2\\x81\\xa6\\xef\\xbb\\xbf"},
             {"\U000e0041", "\\xf3\\xa0\\x81\\x81"},
             {"\xc3", "\\xc3"},
             {"\xe2\x82z", "\\xe2\\x82z"}})
        EXPECT_EQ(printed, printable(text));
}

TEST(Output, EscapesInvisibleCharactersInJson) {
    const std::string name = "\u009b\u202e\x7f\u200f\U000e0041\u0416\U0001f600";
    const std::string document = rendered(Table{"users", {"name"}, {{name}}}, Form::kJson);
    EXPECT_NE(std::string::npos,
              document.find("\"\\u009b\\u202e\\u007f\\u200f\\udb40\\udc41\u0416\U0001f600\""))
        << document;
    EXPECT_EQ(name, Json::parse(document)["users"][0]["name"]);
}

TEST(Output, PrintsAStreamRowByRow) {
    const auto printed = [](Form form) {
        auto rows = std::make_shared<std::vector<std::vector<Cell>>>(
            std::vector<std::vector<Cell>>{{"wider than it", 12u}, {"a\nb", 7u}});
        const Answer answer = Stream{{{"user", 6}, {"id", 0}}, [rows]() -> std::optional<std::vector<Cell>> {
                                         if (rows->empty()) return std::nullopt;
                                         const auto row = rows->back();
                                         rows->pop_back();
                                         return row;
                                     }};
        testing::internal::CaptureStdout();
        EXPECT_EQ(Exit::kOk, print(answer, form));
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ("USER    ID\na\\x0ab  7\nwider than it  12\n", printed(Form::kTable));
    EXPECT_EQ("{\"user\":\"a\\nb\",\"id\":7}\n{\"user\":\"wider than it\",\"id\":12}\n",
              printed(Form::kJson));
}

TEST(Output, CompletesCommandLines) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"serv"}, "service\n"},
        {{"--json", "service", "s"}, "show\nset\n"},
        {{"--timeout", "s"}, ""},
        {{"--timeout", "5", "serv"}, "service\n"},
        {{"servise", ""}, ""},
        {{"service", "set", "s"}, ""},
        {{"record", "set", "amy", "--t"}, "--timeout\n--type\n"},
        {{"record", "set", "--type", "--"}, ""},
        {{"record", "set", "--stdin", "--e"}, "--encoding\n"},
        {{}, ""},
    };
    for (auto [words, want] : cases) {
        words.insert(words.begin(), "__complete");
        EXPECT_EQ(want, quillsec(words).out);
    }
}
}  // namespace
}  // namespace quill::cli
