// What CLI11 recognised of a command line, and the error message for one that it refused.
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

// The program, noun and verb, as far as they were recognised.
using Levels = std::vector<const CLI::App*>;

Levels recognised(const CLI::App& root);

// Return the noun, and the verb, of levels that have at least a noun. If no verb was given, it is the noun's
// first.
const Noun& noun_of(const Levels& levels);
const Verb& verb_of(const Levels& levels);

// Returns a failure with Exit::kUsage.
Failure wrong_line(std::string object, std::string text, std::string remedy);

// Returns the failure for a line that CLI11 has refused with this error.
Failure usage_failure(const CLI::App& root, const CLI::ParseError& error);

}  // namespace quill::cli
