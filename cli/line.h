// A line of input, which may be a secret: wiped when destroyed.
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

enum class ReadByte { kByte, kEnd, kFailed };

// Reads one byte and appends it to the line. Returns kEnd if the line is complete: for a newline, which is
// not appended, at the end of the input, and as soon as the line has `longest` + 1 bytes. Returns kFailed,
// with errno, on failure.
ReadByte read_byte(int descriptor, size_t longest, Line& line);

// Reads a line, and nothing behind its newline: that is for the next reader. A line that is too long has a
// length of `longest` + 1. Returns false with errno on failure.
bool read_line(int descriptor, size_t longest, Line& line);

}  // namespace quill::cli
