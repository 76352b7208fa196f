// From the words of the command line to one verb and back to an exit code.
//
// CLI11 reads the line; what it says about a line it cannot read is not used. Its exceptions tell that
// something is wrong, and the tables tell what: so a mistyped word is answered in the program's own voice,
// with a guess at what was meant.
#include "cli/program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "cli/command.h"
#include "cli/complete.h"
#include "cli/secret_input.h"
#include "cli/words.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"

namespace quill::cli {
namespace {
constexpr const Noun* kNouns[] = {
    &kUser,   &kRole,   &kLocale, &kKey, &kPassword, &kService,  &kSecret,
    &kRecord, &kBanner, &kWeb,    &kVdc, &kWatch,    &kSelfTest,
};

constexpr uint32_t kLongestTimeout = 3600;

constexpr const char* kGlobalOptions = "Global options, anywhere on the line";

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 ok             3 no such object   6 invalid value          9 store failure\n"
    "  1 failed         4 exists already   7 daemon not reachable  10 timeout\n"
    "  2 wrong usage    5 not permitted    8 busy";

// The words, and what they say of the one option whose value is not for a verb.
struct CommandLine {
    std::span<const char* const> words;
    std::optional<std::string> timeout = {};

    // Declaring takes most of the time of reading a line, so a noun or verb is declared where the line may
    // have it: among the words, or in a list of help.
    bool may_have(std::string_view name) const {
        return std::ranges::any_of(words, [&](std::string_view word) {
            return word == name || word.starts_with("-h") || word.starts_with("--help");
        });
    }
};

void declare_global(CLI::App& app, std::optional<std::string>& timeout) {
    CLI::Option* help = app.set_help_flag("--help,-h", "say how it is used");
    CLI::Option* version = app.set_version_flag("--version", "", "say the version");
    CLI::Option* json = app.add_flag("--json")->description("answer with one JSON document, errors too");
    for (CLI::Option* flag : {help, version, json}) flag->disable_flag_override()->group(kGlobalOptions);
    app.add_option("--timeout", timeout,
                   "wait this long for each answer, 60 if not given;\n"
                   "the keys and fips wait 180 and ploty 15 in any case")
        ->option_text("SECONDS")
        ->take_last()
        ->group(kGlobalOptions);
}

// What the line of usage calls the words that follow.
void label_next_words(CLI::App& app, const char* words) {
    auto formatter = std::make_shared<CLI::Formatter>();
    formatter->label("SUBCOMMAND", words);
    formatter->label("Positionals", "Arguments");
    app.formatter(formatter);
}

bool is_option(const Argument& argument) { return argument.name[0] == '-'; }

void declare(CLI::App& app, const Argument& argument) {
    if (argument.need == Argument::kFlag) {
        app.add_flag(argument.name)->description(argument.help)->disable_flag_override();
        return;
    }
    CLI::Option* option = app.add_option(argument.name, argument.help);
    option->required(argument.need == Argument::kRequired);
    if (is_option(argument)) option->option_text(argument.value)->take_last();
}

void declare(CLI::App& noun_app, const Noun& noun, const Verb& verb, CommandLine& line) {
    if (!line.may_have(verb.name)) return;
    CLI::App& app = *noun_app.add_subcommand(verb.name, verb.help)->group("Verbs");
    for (const Argument& argument : verb.arguments) declare(app, argument);
    declare_global(app, line.timeout);
    app.footer(noun.notes);
}

void declare(CLI::App& root, const Noun& noun, CommandLine& line) {
    if (!line.may_have(noun.name)) return;
    CLI::App& app = *root.add_subcommand(noun.name, noun.help)->group("Nouns");
    label_next_words(app, "VERB [ARGUMENT...]");
    for (const Verb& verb : noun.verbs) declare(app, noun, verb, line);
    if (noun.first_verb_implied) {
        for (const Argument& argument : noun.verbs.front().arguments) declare(app, argument);
    }
    declare_global(app, line.timeout);
    app.footer(noun.notes)->require_subcommand(noun.first_verb_implied ? 0 : 1, 1);
}

// Global options are declared at each level, on one variable: CLI11 could hand them up by itself, but then
// hands up surplus arguments as well. Exactly one subcommand a level lets a name equal a noun or a verb.
void declare(CLI::App& root, CommandLine& line) {
    label_next_words(root, "NOUN VERB [ARGUMENT...]");
    for (const Noun* noun : kNouns) declare(root, *noun, line);
    declare_global(root, line.timeout);
    root.footer(kExitCodes)->require_subcommand(1);
}

// What was recognised of the line: the program, a noun, a verb, as far as it goes.
using Levels = std::vector<const CLI::App*>;

Levels recognised(const CLI::App& root) {
    Levels levels{&root};
    while (!levels.back()->get_subcommands().empty()) {
        levels.push_back(levels.back()->get_subcommands().front());
    }
    return levels;
}

std::string path(const Levels& levels) {
    std::string names;
    for (const CLI::App* level : levels) names += (names.empty() ? "" : " ") + level->get_name();
    return names;
}

const Noun& noun_of(const Levels& levels) {
    return **std::ranges::find(kNouns, levels[1]->get_name(), [](const Noun* noun) { return noun->name; });
}

const Verb& verb_of(const Levels& levels) {
    const Noun& noun = noun_of(levels);
    if (levels.size() == 2) return noun.verbs.front();
    return *std::ranges::find(noun.verbs, levels[2]->get_name(), &Verb::name);
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

Failure wrong_line(std::string object, std::string text, std::string remedy) {
    return {Exit::kUsage, std::move(object), std::move(text), std::move(remedy)};
}

// What stands before a complaint: nothing for the program itself, else the noun, or noun and verb.
std::string where(const Levels& levels) {
    const std::string program = levels[0]->get_name();
    const std::string names = path(levels);
    return names == program ? "" : names.substr(program.size() + 1) + ": ";
}

// A word that should have been one of `known`, a noun, verb or option.
Failure unknown_word(const char* kind, const Levels& levels, const std::string& word,
                     const std::vector<std::string>& known) {
    const std::string object = fmt::format("{} '{}'", kind, word);
    const std::string meant = nearest(word, known);
    return wrong_line(object, fmt::format("{}{} does not exist", where(levels), object),
                      meant.empty() ? "use " + either(known) : fmt::format("did you mean '{}'?", meant));
}

// The first word that a level could not place: an unknown option (`options`) or any other word. Null for
// none. What follows "--" is no option, whatever it looks like.
std::optional<std::string> misplaced(const CLI::App& level, bool options) {
    bool marked = false;
    for (const std::string& word : level.remaining()) {
        const bool option = !marked && word.size() > 1 && word[0] == '-' && word != "--";
        marked = marked || word == "--";
        if (word != "--" && option == options) return word;
    }
    return std::nullopt;
}

// The line ends, or goes astray, where a noun or a verb should stand.
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
        // The word may be one, and what is said here may end up in a log.
        return wrong_line("argument", where(levels) + "there is an argument too many",
                          usage(levels, verb) + "; secrets do not belong on the command line");
    }
    const std::string object = fmt::format("argument '{}'", misplaced(*levels.back(), false).value_or(""));
    return wrong_line(object, fmt::format("{}{} is not expected", where(levels), object),
                      usage(levels, verb) + "; quote what contains blanks");
}

// An option has no value, or one too many. Which option it is, only the exception tells.
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

// What is wrong with a line that CLI11 refused.
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

// The platform takes what it cannot read for no variable at all, which would change the accounts of
// context 1.
void check_context() {
    const char* text = getenv("SYSMGR_VDC_ID");
    if (text == nullptr || *text == '\0' || number(text, 1, SYSMGRCMN_VDC_ID_MAX)) return;
    throw wrong_line("environment variable 'SYSMGR_VDC_ID'",
                     fmt::format("environment variable 'SYSMGR_VDC_ID': value '{}' is not valid", text),
                     fmt::format("use 1 to {}, or unset it", SYSMGRCMN_VDC_ID_MAX));
}

void set_timeout(const std::optional<std::string>& text) {
    if (!text) return;
    const auto seconds = number(*text, 1, kLongestTimeout);
    if (!seconds) {
        throw wrong_line("option '--timeout'",
                         fmt::format("option '--timeout': value '{}' is not valid", *text),
                         fmt::format("use 1 to {} (seconds)", kLongestTimeout));
    }
    security_cmi_timeout = *seconds;
}

Answer run_verb(const CLI::App& root) {
    const auto levels = recognised(root);
    const Verb& verb = verb_of(levels);
    Arguments arguments;
    for (const Argument& argument : verb.arguments) {
        const CLI::Option* option = levels.back()->get_option(argument.name);
        if (option->count() > 0) arguments.add(argument.name, option->results().back());
    }
    return verb.run(arguments);
}

// To CLI11 this word closes a verb; it would be dropped without a word.
void refuse_terminator(std::span<const char* const> words) {
    for (const std::string_view word : words) {
        if (word == "--") return;
        if (word == "++")
            throw wrong_line("argument '++'", "argument '++' is not expected", "put '--' before it");
    }
}

std::string help(const CLI::App& root) {
    std::string text = root.help();
    return text.erase(text.find_last_not_of('\n') + 1);
}

Answer answer(std::span<const char* const> words) {
    refuse_terminator(words);
    CLI::App root("shows and changes the security configuration of this system.", "quillsec");
    CommandLine line{words};
    declare(root, line);
    std::vector<std::string> backwards(words.rbegin(), words.rend());  // as CLI11 wants them
    try {
        root.parse(backwards);
    } catch (const CLI::CallForHelp&) {
        return Remark{"help", help(root)};
    } catch (const CLI::CallForVersion&) {
        return Remark{"version", {QUILL_VERSION, "quillsec " QUILL_VERSION}};
    } catch (const CLI::ParseError& error) {
        throw usage_failure(root, error);
    }
    set_timeout(line.timeout);
    check_context();
    return run_verb(root);
}

// Known before the line is read, so that a complaint about the line has its form too.
Form form_of(std::span<const char* const> words) {
    for (const std::string_view word : words) {
        if (word == "--json") return Form::kJson;
        if (word == "--") break;
    }
    return Form::kTable;
}

// The shell reads it, and does without where it cannot be written.
int complete(std::span<const char* const> words) {
    const std::string page = completions(kNouns, words);
    const bool written = fwrite(page.data(), 1, page.size(), stdout) == page.size() && fflush(stdout) == 0;
    return static_cast<int>(written ? Exit::kOk : Exit::kFailed);
}
}  // namespace

int run(std::span<const char* const> words) noexcept {
    const Form form = form_of(words);
    try {
        if (!words.empty() && std::string_view(words[0]) == kCompleteWord) return complete(words.subspan(1));
        return static_cast<int>(say(answer(words), form));
    } catch (const Failure& failure) {
        return static_cast<int>(say(failure, form));
    } catch (const std::exception& error) {
        return static_cast<int>(
            say({Exit::kFailed, "quillsec", fmt::format("stopped: {}", error.what()), ""}, form));
    }
}

}  // namespace quill::cli
