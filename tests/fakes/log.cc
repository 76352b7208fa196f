#include "tests/fakes/log.h"

#include <cstdarg>
#include <cstdio>

std::vector<std::string>& log_lines() {
    static std::vector<std::string> lines;
    return lines;
}

// Taken in place of the C library's.
extern "C" void syslog(int priority, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log_lines().push_back(std::to_string(priority) + " " + text);
}
