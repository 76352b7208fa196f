#include "cli/secret_input.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "base/dictionary.h"
#include "cli/quiet.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

Failure refused(const SecretWanted& wanted, Exit exit, const std::string& what, std::string remedy) {
    return {exit, wanted.object, fmt::format("{}: {}", wanted.object, what), std::move(remedy)};
}

void check(const SecretWanted& wanted, const Line& secret) {
    const char* fault = nullptr;
    if (secret.length == 0) fault = "is empty";
    if (secret.length > wanted.longest) fault = "is too long";
    if (memchr(secret.bytes, '\0', secret.length)) fault = "holds a NUL byte";
    if (!fault) return;
    throw refused(wanted, Exit::kInvalidValue, fmt::format("the {} {}", wanted.name, fault),
                  fmt::format("use 1 to {} bytes", wanted.longest));
}

void read_from_stdin(const SecretWanted& wanted, Line& secret) {
    if (isatty(STDIN_FILENO)) {
        throw refused(wanted, Exit::kUsage, "standard input is a terminal, which would show what is typed",
                      fmt::format("leave out {} to be asked", wanted.option));
    }
    if (!read_line(STDIN_FILENO, wanted.longest, secret)) {
        throw refused(wanted, Exit::kFailed,
                      fmt::format("standard input cannot be read: {}", error_text(errno)),
                      fmt::format("connect it to the source of the {}", wanted.name));
    }
    check(wanted, secret);
}

// Returns false if a signal has to be delivered first; the caller then asks again.
bool ask(const Terminal& terminal, const HiddenInput& hidden, const std::string& prompt, size_t longest,
         Line& line) {
    terminal.show(printable(prompt));
    const bool answered = hidden.read_line(longest, line);
    terminal.show("\n");  // the newline that was typed is not shown
    return answered;
}

bool ask(const Terminal& terminal, const SecretWanted& wanted, Line& secret) {
    const HiddenInput hidden(terminal);
    const std::string prompt = fmt::format("{} of {}: ", wanted.name, wanted.object);
    if (!ask(terminal, hidden, prompt, wanted.longest, secret)) return false;
    check(wanted, secret);
    if (!wanted.new_one) return true;
    Line again;
    if (!ask(terminal, hidden, "the same again: ", wanted.longest, again)) return false;
    if (again.length != secret.length || memcmp(again.bytes, secret.bytes, secret.length) != 0) {
        throw refused(wanted, Exit::kInvalidValue, "the two entries differ",
                      fmt::format("enter the same {} twice", wanted.name));
    }
    return true;
}
}  // namespace

Failure no_dictionary(const std::string& object, const char* name, const std::string& other_remedy) {
    return {Exit::kNoSuchObject, object,
            fmt::format("{}: the {} cannot be checked, since the dictionary of passwords cannot be read",
                        object, name),
            "make the dictionary first, as quillsecurityd(8) says under FILES" + other_remedy};
}

bool lacks_dictionary(const std::string& user, const char* password) {
    if (security_check_strength_main(user.c_str(), password) != nullptr) return false;
    const QuietStandardError quiet;
    return check_dictionary(password).outcome == DictionaryResult::kNoDictionary;
}

void read_secret(const SecretWanted& wanted, const Arguments& arguments, Line& secret) {
    if (arguments.has(wanted.option)) return read_from_stdin(wanted, secret);
    const Terminal terminal;
    if (!terminal.found()) {
        throw refused(wanted, Exit::kUsage,
                      fmt::format("there is no terminal to ask for the {}", wanted.name),
                      fmt::format("give it on standard input with {}", wanted.option));
    }
    while (!ask(terminal, wanted, secret)) {
    }
}

}  // namespace quill::cli
