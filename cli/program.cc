// Finds the verb of a command line and executes it.
//
// CLI11 parses the line, but its error messages are not used: cli/usage.cc makes them from the tables of
// nouns and verbs, with a suggestion for a misspelled word.
#include "cli/program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "cli/command.h"
#include "cli/complete.h"
#include "cli/usage.h"
#include "cli/words.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"

namespace quill::cli {
namespace {
constexpr uint32_t kLongestTimeout = 3600;

constexpr const char* kGlobalOptions = "Global options, anywhere on the line";

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 ok             3 no such object   6 invalid value          9 store failure\n"
    "  1 failed         4 exists already   7 daemon not reachable  10 timeout\n"
    "  2 wrong usage    5 not permitted    8 busy";

// The words, and the value of --timeout, the one global option that has a value.
struct CommandLine {
    std::span<const char* const> words;
    std::optional<std::string> timeout = {};

    // Declaring nouns and verbs to CLI11 takes most of the time of a run. So one is declared only if it is
    // among the words, or if help may list it.
    bool may_have(std::string_view name) const {
        return std::ranges::any_of(words, [&](std::string_view word) {
            return word == name || word.starts_with("-h") || word.starts_with("--help");
        });
    }
};

void declare_global(CLI::App& app, std::optional<std::string>& timeout) {
    CLI::Option* help = app.set_help_flag("--help,-h", "print the usage");
    CLI::Option* version = app.set_version_flag("--version", "", "print the version");
    CLI::Option* json = app.add_flag("--json")->description("print one JSON document, also for errors");
    for (CLI::Option* flag : {help, version, json}) flag->disable_flag_override()->group(kGlobalOptions);
    app.add_option("--timeout", timeout,
                   "wait this long for each reply, 60 if not given;\n"
                   "the keys and fips wait 180 and ploty 15 in any case")
        ->option_text("SECONDS")
        ->take_last()
        ->group(kGlobalOptions);
}

// Sets the names of the next words in the usage line of the help.
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

// Global options are declared at each level, with one variable: CLI11 could pass them to the level above by
// itself, but would then pass surplus arguments as well. With exactly one subcommand per level, an argument
// may equal the name of a noun or a verb.
void declare(CLI::App& root, CommandLine& line) {
    label_next_words(root, "NOUN VERB [ARGUMENT...]");
    for (const Noun* noun : kNouns) declare(root, *noun, line);
    declare_global(root, line.timeout);
    root.footer(kExitCodes)->require_subcommand(1);
}

// The platform ignores an invalid SYSMGR_VDC_ID. The command would then change context 1, so it is refused
// here.
void require_valid_context() {
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

void add_how_to_find_out(const Noun& noun, Failure& failure) {
    if (std::ranges::find(noun.verbs, std::string_view("show"), &Verb::name) == noun.verbs.end()) return;
    failure.remedy = fmt::format("'quillsec {} show' tells; {}", noun.name, failure.remedy);
}

Answer run_verb(const CLI::App& root) {
    const auto levels = recognised(root);
    const Verb& verb = verb_of(levels);
    Arguments arguments;
    for (const Argument& argument : verb.arguments) {
        const CLI::Option* option = levels.back()->get_option(argument.name);
        if (option->count() > 0) arguments.add(argument.name, option->results().back());
    }
    try {
        return carry_out(verb, arguments);
    } catch (Failure& failure) {
        if (failure.outcome_unknown) add_how_to_find_out(noun_of(levels), failure);
        throw;
    }
}

// CLI11 takes "++" for the end of a verb and would ignore it silently.
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
    require_valid_context();
    return run_verb(root);
}

// Does not need the parser, so that its errors are printed in the right form too.
Form form_of(std::span<const char* const> words) {
    for (const std::string_view word : words) {
        if (word == "--json") return Form::kJson;
        if (word == "--") break;
    }
    return Form::kTable;
}

// For a shell, which ignores a failure.
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
        return static_cast<int>(print(answer(words), form));
    } catch (const Failure& failure) {
        return static_cast<int>(print(failure, form));
    } catch (const std::exception& error) {
        return static_cast<int>(
            print({Exit::kFailed, "quillsec", fmt::format("stopped: {}", error.what()), ""}, form));
    }
}

}  // namespace quill::cli
