#include "cli/usage.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "cli/secret_input.h"
#include "cli/words.h"

namespace quill::cli {

Levels recognised(const CLI::App& root) {
    Levels levels{&root};
    while (!levels.back()->get_subcommands().empty()) {
        levels.push_back(levels.back()->get_subcommands().front());
    }
    return levels;
}

const Noun& noun_of(const Levels& levels) {
    return **std::ranges::find(kNouns, levels[1]->get_name(), [](const Noun* noun) { return noun->name; });
}

const Verb& verb_of(const Levels& levels) {
    const Noun& noun = noun_of(levels);
    if (levels.size() == 2) return noun.verbs.front();
    return *std::ranges::find(noun.verbs, levels[2]->get_name(), &Verb::name);
}

Failure wrong_line(std::string object, std::string text, std::string remedy) {
    return {Exit::kUsage, std::move(object), std::move(text), std::move(remedy)};
}

namespace {

std::string path(const Levels& levels) {
    std::string names;
    for (const CLI::App* level : levels) names += (names.empty() ? "" : " ") + level->get_name();
    return names;
}

std::string usage(const Levels& levels, const Verb& verb) {
    std::string line = "usage: " + path(levels);
    for (const Argument& argument : verb.arguments) {
        const std::string word =
            fmt::format("{}{}{}", argument.name, *argument.value ? " " : "", argument.value);
        const bool required = argument.need == Argument::kRequired;
        line += required ? fmt::format(" {}", word) : fmt::format(" [{}]", word);
    }
    return line;
}

// The prefix of a message: nothing for the program itself, else "NOUN: " or "NOUN VERB: ".
std::string where(const Levels& levels) {
    const std::string program = levels[0]->get_name();
    const std::string names = path(levels);
    return names == program ? "" : names.substr(program.size() + 1) + ": ";
}

// The failure for a word that is none of the `known` nouns, verbs or options.
Failure unknown_word(const char* kind, const Levels& levels, const std::string& word,
                     const std::vector<std::string>& known) {
    const std::string object = fmt::format("{} '{}'", kind, word);
    const std::string meant = nearest(word, known);
    return wrong_line(object, fmt::format("{}{} does not exist", where(levels), object),
                      meant.empty() ? "use " + either(known) : fmt::format("did you mean '{}'?", meant));
}

// Returns the first word that a level did not recognise: an unknown option (`options`) or any other word. A
// word after "--" is not an option.
std::optional<std::string> misplaced(const CLI::App& level, bool options) {
    bool marked = false;
    for (const std::string& word : level.remaining()) {
        const bool option = !marked && word.size() > 1 && word[0] == '-' && word != "--";
        marked = marked || word == "--";
        if (word != "--" && option == options) return word;
    }
    return std::nullopt;
}

// The failure for a missing or unknown noun or verb.
Failure next_word_failure(const Levels& levels) {
    const char* kind = levels.size() == 1 ? "noun" : "verb";
    std::vector<std::string> known;
    if (levels.size() == 1) {
        for (const Noun* noun : kNouns) known.emplace_back(noun->name);
    } else {
        for (const Verb& verb : noun_of(levels).verbs) known.emplace_back(verb.name);
    }
    if (const auto word = misplaced(*levels.back(), false)) return unknown_word(kind, levels, *word, known);
    return wrong_line(kind, fmt::format("{}a {} is missing", where(levels), kind), "use " + either(known));
}

bool takes_secret(const Verb& verb) {
    return std::any_of(verb.arguments.begin(), verb.arguments.end(),
                       [](const Argument& a) { return std::string_view(a.name) == kFromStdin.name; });
}

Failure argument_failure(const Levels& levels) {
    const Verb& verb = verb_of(levels);
    for (const Argument& argument : verb.arguments) {
        if (argument.need != Argument::kRequired || levels.back()->count(argument.name) > 0) continue;
        return wrong_line(fmt::format("argument '{}'", argument.name),
                          fmt::format("{}{} is missing", where(levels), argument.name), usage(levels, verb));
    }
    if (takes_secret(verb)) {
        // The word may be a secret, and this message may end up in a log.
        return wrong_line("argument", where(levels) + "there is an argument too many",
                          usage(levels, verb) + "; secrets do not belong on the command line");
    }
    const std::string object = fmt::format("argument '{}'", misplaced(*levels.back(), false).value_or(""));
    return wrong_line(object, fmt::format("{}{} is not expected", where(levels), object),
                      usage(levels, verb) + "; quote what contains blanks");
}

// The failure for an option without its value, or a flag with one. Only the exception has the option's name.
Failure option_value_failure(const Levels& levels, const std::string& complaint) {
    const size_t start = complaint.find_first_not_of('-');
    const std::string name = "--" + complaint.substr(start, complaint.find_first_of(": ", start) - start);
    const CLI::Option* option = levels.back()->get_option_no_throw(name);
    const bool flag = option && option->get_items_expected_max() == 0;
    const std::string object = fmt::format("option '{}'", name);
    return wrong_line(object,
                      fmt::format("{}{} {} value", where(levels), object, flag ? "takes no" : "needs a"),
                      fmt::format("see '{} --help'", path(levels)));
}

}  // namespace

Failure usage_failure(const CLI::App& root, const CLI::ParseError& error) {
    const auto levels = recognised(root);
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error)) return option_value_failure(levels, error.what());
    for (size_t depth = 1; depth <= levels.size(); ++depth) {
        const Levels upper(levels.begin(), levels.begin() + static_cast<ptrdiff_t>(depth));
        const auto option = misplaced(*upper.back(), true);
        if (!option) continue;
        std::vector<std::string> known;
        for (const CLI::Option* o : upper.back()->get_options()) {
            for (const std::string& name : o->get_lnames()) known.push_back("--" + name);
        }
        return unknown_word("option", upper, option->substr(0, option->find('=')), known);
    }
    return levels.size() < 3 ? next_word_failure(levels) : argument_failure(levels);
}

}  // namespace quill::cli
