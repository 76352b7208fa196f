// Words of the command line: names are compared without regard to case and to '-', '_' and blanks between
// words, and there is a suggestion for a misspelled one. Texts are made safe for output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quill::cli {

// Returns the form in which all spellings of a name are equal: lower case, with '-' between words.
std::string folded(std::string_view name);

// Returns the candidate of which `word` is most likely a misspelling; empty if there is none.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

// Reads a decimal number in this range. Returns nothing if the text is anything else.
std::optional<uint32_t> number(std::string_view text, uint32_t low, uint32_t high);

// Returns a list like "show, set or defaults".
std::string either(const std::vector<std::string>& words);

// Both functions escape characters that could break a line of output, control the terminal or change the text
// around them: control characters and invisible characters, such as those for the direction of text, of no
// width, tags and line separators.
//
// Returns the text with the bytes of such characters, and bytes that are not UTF-8, as \xNN.
std::string printable(std::string_view text);

// Returns a JSON document of the same value, with such characters in its strings as \uXXXX.
std::string printable_json(std::string_view document);

}  // namespace quill::cli
