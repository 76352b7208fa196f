// The command line is data: a noun is a table of verbs, a verb is its arguments and the function that does
// it. To add a noun, write its table in a file of its own, name it below and in kNouns of program.cc; how
// arguments are read, what a mistyped word gets for an answer, --json and the exit codes come with it.
#pragma once

#include <initializer_list>
#include <map>
#include <span>
#include <string>

#include "cli/output.h"

namespace quill::cli {

struct Argument {
    const char* name;  // "NAME" takes its place on the line, "--name" is an option
    const char* help;
    enum { kRequired, kOptional, kFlag } need = kRequired;  // a flag is an option without a value
    const char* value = "";                                 // what help calls the value of an option
};

// What was given, by the name of the argument.
class Arguments {
 public:
    void add(const std::string& name, std::string value) { values_[name] = std::move(value); }

    // Null where the argument was left out.
    const std::string* find(const std::string& name) const {
        const auto found = values_.find(name);
        return found == values_.end() ? nullptr : &found->second;
    }

    // Whether a flag, or anything else, was given.
    bool has(const std::string& name) const { return values_.contains(name); }

    // A required argument.
    const std::string& operator[](const std::string& name) const { return values_.at(name); }

    bool empty() const { return values_.empty(); }

 private:
    std::map<std::string, std::string> values_;
};

// What carry_out() does beside calling a verb's function; for Verb::traits.
enum : unsigned {
    // Before: asks whether the daemon is there, since the function looks at this system's own files or changes
    // them before its first request.
    kNeedsDaemon = 1,
    // Afterwards: in another context than 1, says that what was set is only stored. A verb that was given none
    // of its arguments has only shown something.
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
    std::string (*notes)();  // stands at the end of the noun's and its verbs' help
    std::span<const Verb> verbs;
    bool first_verb_implied = false;  // where none is given; the first verb takes options alone then
};

// What the verb answers to these arguments, with what its traits ask for. Throws Failure.
Answer carry_out(const Verb& verb, const Arguments& arguments);

extern const Noun kUser, kRole, kLocale, kKey, kPassword, kService, kSecret, kRecord, kBanner, kWeb, kVdc,
    kWatch, kSelfTest;

}  // namespace quill::cli
