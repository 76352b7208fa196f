// What was recognised of a command line, and what is wrong with one that CLI11 refused.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "cli/command.h"

namespace quill::cli {

inline constexpr const Noun* kNouns[] = {
    &kUser,   &kRole,   &kLocale, &kKey, &kPassword, &kService,  &kSecret,
    &kRecord, &kBanner, &kWeb,    &kVdc, &kWatch,    &kSelfTest,
};

// The program, a noun, a verb, as far as they were recognised.
using Levels = std::vector<const CLI::App*>;

Levels recognised(const CLI::App& root);

// The noun of at least two levels, and the verb of them: the noun's first where the line has none.
const Noun& noun_of(const Levels& levels);
const Verb& verb_of(const Levels& levels);

// A failure of kind kUsage.
Failure wrong_line(std::string object, std::string text, std::string remedy);

// What is wrong with the line that left `root` in this state.
Failure usage_failure(const CLI::App& root, const CLI::ParseError& error);

}  // namespace quill::cli
