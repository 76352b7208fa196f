// Arbitrary command lines of the client. Parsing one takes milliseconds with sanitizers, so the harness
// `command` tests the verbs without parsing.
#include <string>
#include <vector>

#include "cli/program.h"
#include "fuzz/client.h"

namespace {

using Words = std::vector<std::string>;

Words words_of(std::string_view line) {
    Words words;
    while (!line.empty() && words.size() < 16) {
        const size_t end = std::min(line.find('\n'), line.size());
        words.emplace_back(std::string(line.substr(0, end)).c_str());
        line.remove_prefix(std::min(end + 1, line.size()));
    }
    return words;
}

// Takes the text before the next form feed, and the form feed.
std::string_view section(std::string_view& rest) {
    const std::string_view taken = rest.substr(0, rest.find('\f'));
    rest.remove_prefix(std::min(taken.size() + 1, rest.size()));
    return taken;
}

}  // namespace

// Input: words, one on each line, a form feed, standard input, a form feed, the daemon's replies.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    const Words words = words_of(section(rest));
    if (!words.empty() && words[0] == "__complete") return 0;  // writes to the real standard output
    const std::string_view given = section(rest);
    Input from_daemon(data + size - rest.size(), rest.size());

    const auto marker = std::find(words.begin(), words.end(), "--");
    const bool json = std::find(words.begin(), marker, "--json") != marker;
    const std::vector<const char*> pointers = [&] {
        std::vector<const char*> all;
        for (const std::string& word : words) all.push_back(word.c_str());
        return all;
    }();
    check_run(given, from_daemon, json, is_known(data, size), [&] { return quill::cli::run(pointers); });
    return 0;
}
