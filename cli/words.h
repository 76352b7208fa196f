// What people type, understood generously: names in any case and with '-', '_' or a blank between their
// words, and a guess at what was meant when nothing fits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quill::cli {

// The form in which two spellings of one name are equal.
std::string folded(std::string_view name);

// The candidate that `word` is most likely a misspelling of; empty when none is near.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

// A whole decimal number of this range and nothing else.
std::optional<uint32_t> number(std::string_view text, uint32_t low, uint32_t high);

// "show, set or defaults"
std::string either(const std::vector<std::string>& words);

// Both hide what could break a line of output, control the terminal, or change how the text around it looks:
// control characters, and characters without a shape of their own, such as those for the direction of the
// text, of no width, tags and separators of lines.
//
// The text with the bytes of such characters, and whatever is not UTF-8, as \xNN.
std::string printable(std::string_view text);

// A JSON document, in UTF-8, with such characters in its strings as \uXXXX: it has the same value.
std::string printable_json(std::string_view document);

}  // namespace quill::cli
