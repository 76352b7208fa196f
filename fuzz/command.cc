// Every verb of the client with arbitrary arguments, as far as the tables of the nouns allow them.
#include <string>

#include "cli/command.h"
#include "cli/failure.h"
#include "fuzz/client.h"

namespace {

using namespace quill::cli;

constexpr const Noun* kNouns[] = {&kUser,   &kRole,   &kLocale, &kKey, &kPassword, &kService, &kSecret,
                                  &kRecord, &kBanner, &kWeb,    &kVdc, &kWatch,    &kSelfTest};

// Takes a text up to a newline or NUL.
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
        return static_cast<int>(print(verb.run(arguments), form));
    } catch (const Failure& failure) {
        return static_cast<int>(print(failure, form));
    }
}

}  // namespace

// Input: noun, verb, output format, arguments, standard input, the daemon's replies.
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
