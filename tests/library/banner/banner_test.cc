#include "tests/fakes/library_test.h"

namespace {

using Banner = LibraryTest;

// Returns the text that was written, if the count returned is its length.
std::string read(int32_t (*reader)(char*, FILE*), std::string bytes) {
    // fmemopen(3) does not accept an empty buffer
    FILE* stream = bytes.empty() ? fopen("/dev/null", "r") : fmemopen(bytes.data(), bytes.size(), "r");
    std::string output(SECURITY_BANNER_TEXT_SIZE, '~');
    const int32_t count = reader(output.data(), stream);
    fclose(stream);
    const size_t used = output.find_last_not_of('~') + 1;
    if (count == -1) return used == 0 ? "refused" : "refused and written";
    return used == static_cast<size_t>(count) + 1 && output[used - 1] == '\0' ? output.substr(0, used - 1)
                                                                              : "miscounted";
}

TEST_F(Banner, Readers) {
    const std::string nul(1, '\0'), longest(10239, 'y');
    std::string escapes, names;
    for (int i = 0; i < 5119; ++i) {
        escapes += "\\n";
        names += "$(hostname)";
    }
    const struct {
        std::string file, enclosed, whole;
    } cases[] = {
        {"%Welcome to \\n%", "Welcome to $(hostname)", "%Welcome to $(hostname)%"},
        {"#A#B#", "A", "#A#B#"},
        {"on \\l", "on $(line)", "on $(line)"},
        {"line \\l", "ine $(line)", "line $(line)"},  // the last byte is the first one, as part of an escape
        {"nab\\ncdnen", "ab$(hostname)cd", "nab$(hostname)cdnen"},  // an escape does not end the text
        {"", "", ""},
        {"x", "", "x"},
        {"a\\b\\\\nc\\", "a\\b\\$(hostname)c\\", "a\\b\\$(hostname)c\\"},
        {"\\ab\\n\\", "ab", "\\ab$(hostname)\\"},  // a backslash as delimiter
        {"#ab" + nul + "c#", "ab", "#ab"},
        {nul + "ab" + nul, "ab", ""},
        {longest, "", longest},
        {escapes + "n", names + "n", names + "n"},
        {longest + "y", "refused", "refused"},
        {longest + longest + longest, "refused", "refused"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.enclosed, read(security_read_banner_motd_msg, c.file)) << c.file;
        EXPECT_EQ(c.whole, read(security_read_banner_motd_msg_with_delimiter, c.file)) << c.file;
    }
    FILE* folder = fopen("/", "r");  // can be opened, but not read
    EXPECT_EQ(-1, security_read_banner_motd_msg(nullptr, folder));
    fclose(folder);
}

}  // namespace
