// The program, short of what belongs to the process itself (main.cc).
#pragma once

#include <span>

namespace quill::cli {

// Does what the command line says, its program name left out, and answers the exit code.
int run(std::span<const char* const> words) noexcept;

}  // namespace quill::cli
