#include "tests/fakes/log.h"

#include <cstdarg>
#include <cstdio>

std::vector<std::string>& log_lines() {
    static std::vector<std::string> lines;
    return lines;
}

// Replaces the C library's function, under either of the names that a compiler gives it.
#define TAKE_LINE                                    \
    char text[4096];                                 \
    va_list arguments;                               \
    va_start(arguments, format);                     \
    vsnprintf(text, sizeof text, format, arguments); \
    va_end(arguments);                               \
    log_lines().push_back(std::to_string(priority) + " " + text)
extern "C" {
#pragma GCC visibility push(default)
void syslog(int priority, const char* format, ...) { TAKE_LINE; }
void __syslog_chk(int priority, int, const char* format, ...) { TAKE_LINE; }
#pragma GCC visibility pop
}
