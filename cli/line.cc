#include "cli/line.h"

#include <unistd.h>

#include <cerrno>

namespace quill::cli {

ReadByte read_byte(int descriptor, size_t longest, Line& line) {
    char& byte = line.bytes[line.length];
    ssize_t count;
    do {
        count = read(descriptor, &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count < 0) return ReadByte::kFailed;
    if (count == 0 || byte == '\n') return ReadByte::kEnd;
    return ++line.length > longest ? ReadByte::kEnd : ReadByte::kByte;
}

bool read_line(int descriptor, size_t longest, Line& line) {
    line.length = 0;
    ReadByte result;
    do {
        result = read_byte(descriptor, longest, line);
    } while (result == ReadByte::kByte);
    return result == ReadByte::kEnd;
}

}  // namespace quill::cli
