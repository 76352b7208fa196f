// Completion of a command line, for shells.
#pragma once

#include <span>
#include <string>

#include "cli/command.h"

namespace quill::cli {

// The first word of a request for completion: quillsec __complete WORD..., where the last word is unfinished
// or empty.
constexpr const char* kCompleteWord = "__complete";

// Returns each noun, verb or option that begins with the last word, one per line. Returns nothing if the last
// word is a value.
std::string completions(std::span<const Noun* const> nouns, std::span<const char* const> words);

}  // namespace quill::cli
