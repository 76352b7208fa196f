// What may stand next on the command line, for shells that complete it.
#pragma once

#include <span>
#include <string>

#include "cli/command.h"

namespace quill::cli {

// What a shell asks with: quillsec __complete WORD..., the words so far, the last one unfinished or empty.
constexpr const char* kCompleteWord = "__complete";

// Every noun, verb or option that fits the last word, one a line. Nothing where a value stands: those are for
// the shell, which knows files, and for people.
std::string completions(std::span<const Noun* const> nouns, std::span<const char* const> words);

}  // namespace quill::cli
