// The program without the set-up of its process (main.cc).
#pragma once

#include <span>

namespace quill::cli {

// Executes the command line, given without the program's name, and returns the exit code.
int run(std::span<const char* const> words) noexcept;

}  // namespace quill::cli
