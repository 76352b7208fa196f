#include "cli/line.h"

#include <unistd.h>

#include <cerrno>

namespace quill::cli {

Taken take_byte(int descriptor, size_t longest, Line& line) {
    char& byte = line.bytes[line.length];
    ssize_t count;
    do {
        count = read(descriptor, &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count < 0) return Taken::kFailed;
    if (count == 0 || byte == '\n') return Taken::kEnd;
    return ++line.length > longest ? Taken::kEnd : Taken::kByte;
}

bool read_line(int descriptor, size_t longest, Line& line) {
    line.length = 0;
    Taken taken;
    do {
        taken = take_byte(descriptor, longest, line);
    } while (taken == Taken::kByte);
    return taken == Taken::kEnd;
}

}  // namespace quill::cli
