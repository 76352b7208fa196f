// Programs of the system, run without a shell and waited for.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace quill {

struct ToolResult {
    int code;            // exit status; 127 when it could not be started, 128 + number when a signal ended it
    std::string errors;  // what it said on standard error, its first 4095 bytes

    bool ok() const { return code == 0; }
};

// Runs a program by its path. `input`, at most 4096 bytes, is its standard input: a secret goes there and
// never among the arguments. It gets a plain environment, umask 022 and 50 seconds; it keeps the descriptor
// `held` open, if any, as long as it runs.
ToolResult run_tool(std::initializer_list<const char*> words, std::string_view input = {}, int held = -1);

}  // namespace quill
