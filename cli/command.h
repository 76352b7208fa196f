// The command line is data: a noun is a table of verbs; a verb is a list of arguments and the function that
// executes it. To add a noun, write its table in a new file and add its name at the end of this file and to
// kNouns in usage.h. Parsing, error messages, suggestions for misspelled words, --json and exit codes are
// shared.
#pragma once

#include <initializer_list>
#include <map>
#include <span>
#include <string>

#include "cli/output.h"

namespace quill::cli {

struct Argument {
    const char* name;  // "NAME" for a positional argument, "--name" for an option
    const char* help;
    enum { kRequired, kOptional, kFlag } need = kRequired;  // a flag is an option without a value
    const char* value = "";                                 // the name of an option's value in the help
};

// The arguments that were given, by name.
class Arguments {
 public:
    void add(const std::string& name, std::string value) { values_[name] = std::move(value); }

    // Returns null if the argument was not given.
    const std::string* find(const std::string& name) const {
        const auto found = values_.find(name);
        return found == values_.end() ? nullptr : &found->second;
    }

    // Returns true if the argument, a flag for example, was given.
    bool has(const std::string& name) const { return values_.contains(name); }

    // Returns a required argument.
    const std::string& operator[](const std::string& name) const { return values_.at(name); }

    bool empty() const { return values_.empty(); }

 private:
    std::map<std::string, std::string> values_;
};

// For Verb::traits: what carry_out() does besides calling the verb's function.
enum : unsigned {
    // Checks first that the daemon runs: the function reads or changes files of the system before its first
    // request.
    kNeedsDaemon = 1,
    // Outside context 1, adds the notice that the setting is only stored. Without arguments the verb has only
    // shown a value, so there is no notice.
    kSetsDevice = 2,
};

struct Verb {
    const char* name;
    const char* help;
    std::initializer_list<Argument> arguments;
    Answer (*run)(const Arguments& arguments);  // throws Failure
    unsigned traits = 0;
};

struct Noun {
    const char* name;
    const char* help;
    std::string (*notes)();  // returns the text at the end of the help of the noun and of its verbs
    std::span<const Verb> verbs;
    bool first_verb_implied = false;  // if no verb is given; the first verb then takes only options
};

// Executes the verb and what its traits add to it. Throws Failure.
Answer carry_out(const Verb& verb, const Arguments& arguments);

extern const Noun kUser, kRole, kLocale, kKey, kPassword, kService, kSecret, kRecord, kBanner, kWeb, kVdc,
    kWatch, kSelfTest;

}  // namespace quill::cli
