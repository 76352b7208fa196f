#include "cli/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace quill::cli {
namespace {

// Letters to insert, remove, replace or swap with their neighbour to make one word from the other.
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

// A word is not taken for another when more than a third of it, or more than two letters, would have to
// be wrong.
size_t tolerance(std::string_view word) { return std::min<size_t>(2, word.size() / 3); }

// Bytes of the character that the text begins with (RFC 3629); 0 where it is a control character or none.
size_t character(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return 0;
    uint32_t code = lead & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0u) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3fu);
    }
    constexpr uint32_t kLowest[] = {0, 0, 0xa0, 0x800, 0x10000};  // below 0xa0 are more control characters
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code >= kLowest[length] && code <= 0x10ffff && !surrogate ? length : 0;
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
        // As many letters at least are wrong as one of the two has more.
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
        const size_t length = character(text);
        if (length == 0) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

}  // namespace quill::cli
