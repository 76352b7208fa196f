// Which characters of a text may be shown: on a terminal, or in a file that a terminal may show later.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace quill {

struct Character {
    size_t length;  // bytes; 0 for what is not UTF-8 (RFC 3629)
    uint32_t code;
};

// Returns the character that `text`, which is not empty, begins with.
constexpr Character first_character(std::string_view text) {
    constexpr Character kNone{0, 0};
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return {1, lead};
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return kNone;
    uint32_t code = lead & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0u) != 0x80) return kNone;
        code = code << 6 | (byte(i) & 0x3fu);
    }
    constexpr uint32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000};  // less has a shorter form
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code >= kLowest[length] && code <= 0x10ffff && !surrogate ? Character{length, code} : kNone;
}

// Characters that are not shown as themselves, in order: control characters, which end a line or are commands
// to the terminal; line and paragraph separators; characters that change the direction of the text or have no
// shape of their own, with which a text can be made to look like another.
constexpr struct {
    uint32_t first, last;
} kUnseen[] = {
    {0x0, 0x1f},        {0x7f, 0x9f},     {0xad, 0xad},       {0x34f, 0x34f},     {0x61c, 0x61c},
    {0x70f, 0x70f},     {0x115f, 0x1160}, {0x17b4, 0x17b5},   {0x180b, 0x180f},   {0x200b, 0x200f},
    {0x2028, 0x202e},   {0x2060, 0x206f}, {0x3164, 0x3164},   {0xfe00, 0xfe0f},   {0xfeff, 0xfeff},
    {0xffa0, 0xffa0},   {0xfff0, 0xfffb}, {0x13430, 0x1343f}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a},
    {0xe0000, 0xe0fff},
};

constexpr bool shown_as_itself(uint32_t code) {
    const auto* range = std::ranges::lower_bound(kUnseen, code, {}, [](const auto& r) { return r.last; });
    return range == std::end(kUnseen) || code < range->first;
}

// Returns the bytes of the first character; 0 where it is not UTF-8 or not shown as itself.
constexpr size_t printable_length(std::string_view text) {
    const auto [length, code] = first_character(text);
    return length != 0 && shown_as_itself(code) ? length : 0;
}

}  // namespace quill
