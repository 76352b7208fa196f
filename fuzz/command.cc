// Every verb of the client with arguments of any kind, as the tables of the nouns allow them.
#include <string>

#include "cli/command.h"
#include "cli/failure.h"
#include "fuzz/client.h"

namespace {

using namespace quill::cli;

constexpr const Noun* kNouns[] = {&kUser,   &kRole,   &kLocale, &kKey, &kPassword, &kService, &kSecret,
                                  &kRecord, &kBanner, &kWeb,    &kVdc, &kWatch,    &kSelfTest};

// A text up to the end of its line or a NUL, as an argument of a program is.
std::string text(Input& input) {
    std::string taken;
    for (char c; !input.ended() && (c = static_cast<char>(input.byte())) != '\n' && c != '\0';) taken += c;
    return taken;
}

Arguments arguments_of(const Verb& verb, Input& input) {
    Arguments arguments;
    for (const Argument& argument : verb.arguments) {
        const bool given = argument.need == Argument::kRequired || input.byte() % 2 != 0;
        if (given) arguments.add(argument.name, argument.need == Argument::kFlag ? "true" : text(input));
    }
    return arguments;
}

int run(const Verb& verb, const Arguments& arguments, Form form) {
    try {
        return static_cast<int>(say(verb.run(arguments), form));
    } catch (const Failure& failure) {
        return static_cast<int>(say(failure, form));
    }
}

}  // namespace

// The noun, the verb, the form, the arguments, what stands on standard input, and how the daemon answers.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Noun& noun = *kNouns[input.byte() % std::size(kNouns)];
    const Verb& verb = noun.verbs[input.byte() % noun.verbs.size()];
    const Form form = input.byte() % 2 != 0 ? Form::kJson : Form::kTable;
    const Arguments arguments = arguments_of(verb, input);
    const std::string given = text(input);
    check_run(given, input, form == Form::kJson, is_known(data, size),
              [&] { return run(verb, arguments, form); });
    return 0;
}
