#include "cli/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "base/printable.h"

namespace quill::cli {
namespace {

// Returns the number of letters to insert, remove, replace or swap with their neighbour to turn `a` into `b`.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            const size_t replaced = d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, replaced});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

// The largest distance of a misspelling: a third of the word, but at most two letters.
size_t tolerance(std::string_view word) { return std::min<size_t>(2, word.size() / 3); }

// Returns the JSON escape of a character, in UTF-16.
std::string json_escape(uint32_t code) {
    if (code < 0x10000) return fmt::format("\\u{:04x}", code);
    return fmt::format("\\u{:04x}\\u{:04x}", 0xd800 + ((code - 0x10000) >> 10), 0xdc00 + (code & 0x3ff));
}

}  // namespace

std::string folded(std::string_view name) {
    std::string result(name);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c == '_' || c == ' ') c = '-';
    }
    return result;
}

std::string nearest(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string wanted = folded(word);
    std::string best;
    size_t best_distance = SIZE_MAX;
    for (const std::string& candidate : candidates) {
        // The distance is at least the difference in length.
        const auto [shorter, longer] = std::minmax({wanted.size(), candidate.size()});
        if (longer - shorter > tolerance(candidate)) continue;
        const size_t far = distance(wanted, folded(candidate));
        if (far > tolerance(candidate) || far >= best_distance) continue;
        best = candidate;
        best_distance = far;
    }
    return best;
}

std::optional<uint32_t> number(std::string_view text, uint32_t low, uint32_t high) {
    uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < low || value > high) return std::nullopt;
    return value;
}

std::string either(const std::vector<std::string>& words) {
    std::string result;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i > 0) result += i + 1 == words.size() ? " or " : ", ";
        result += words[i];
    }
    return result;
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto [length, code] = first_character(text);
        const size_t taken = std::max<size_t>(length, 1);
        if (length != 0 && shown_as_itself(code)) {
            result += text.substr(0, taken);
        } else {
            for (const char byte : text.substr(0, taken))
                result += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
        }
        text.remove_prefix(taken);
    }
    return result;
}

std::string printable_json(std::string_view document) {
    std::string result;
    while (!document.empty()) {
        const auto [length, code] = first_character(document);
        const size_t taken = std::max<size_t>(length, 1);
        if (length == 0 || shown_as_itself(code))
            result += document.substr(0, taken);
        else
            result += json_escape(code);
        document.remove_prefix(taken);
    }
    return result;
}

}  // namespace quill::cli
