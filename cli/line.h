// A line that somebody types or sends, a secret often, held for as long as it is needed and no longer.
#pragma once

#include <cstddef>

#include "base/wiped.h"

namespace quill::cli {

constexpr size_t kLongestLine = 1023;

struct LineBytes {
    char bytes[kLongestLine + 1];  // no terminator
    size_t length;
};
using Line = Wiped<LineBytes>;

enum class Taken { kByte, kEnd, kFailed };

// Adds one byte of input to the line; the newline at its end, and the end of the input, is kEnd. So is a byte
// too many, `longest` + 1: the line is too long then, and as long as it will get. kFailed with errno set.
Taken take_byte(int descriptor, size_t longest, Line& line);

// Reads a line of this kind and no further: what follows it belongs to the next reader. False with errno set.
bool read_line(int descriptor, size_t longest, Line& line);

}  // namespace quill::cli
