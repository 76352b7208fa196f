#include "cli/complete.h"

#include <string_view>
#include <vector>

namespace quill::cli {
namespace {

constexpr std::string_view kTimeout = "--timeout";
constexpr std::string_view kGlobalOptions[] = {"--help", "--version", "--json", kTimeout};

// Returns null if no noun has this name.
const Noun* noun_named(std::span<const Noun* const> nouns, std::string_view name) {
    for (const Noun* noun : nouns)
        if (noun->name == name) return noun;
    return nullptr;
}

const Verb* verb_named(const Noun& noun, std::string_view name) {
    for (const Verb& verb : noun.verbs)
        if (verb.name == name) return &verb;
    return nullptr;
}

// What the words so far have named.
struct Place {
    const Noun* noun = nullptr;
    const Verb* verb = nullptr;
    bool value = false;  // the next word is the value of an option, or follows an unknown noun or verb

    bool takes_value(std::string_view option) const {
        if (option == kTimeout) return true;
        if (verb == nullptr) return false;
        for (const Argument& argument : verb->arguments)
            if (option == argument.name) return argument.need != Argument::kFlag;
        return false;
    }
};

Place place_after(std::span<const Noun* const> nouns, std::span<const char* const> words) {
    Place place;
    for (const std::string_view word : words) {
        if (place.value) {
            place.value = false;
        } else if (word.starts_with('-')) {
            place.value = place.takes_value(word);
        } else if (place.noun == nullptr) {
            place.noun = noun_named(nouns, word);
            if (place.noun == nullptr) return {nullptr, nullptr, true};
        } else if (place.verb == nullptr) {
            place.verb = verb_named(*place.noun, word);
            if (place.verb == nullptr) return {nullptr, nullptr, true};
        }
    }
    return place;
}

std::vector<std::string_view> options(const Place& place) {
    std::vector<std::string_view> found(std::begin(kGlobalOptions), std::end(kGlobalOptions));
    if (place.verb == nullptr) return found;
    for (const Argument& argument : place.verb->arguments)
        if (argument.name[0] == '-') found.emplace_back(argument.name);
    return found;
}

std::vector<std::string_view> names(std::span<const Noun* const> nouns, const Place& place) {
    std::vector<std::string_view> found;
    if (place.noun == nullptr) {
        for (const Noun* noun : nouns) found.emplace_back(noun->name);
    } else if (place.verb == nullptr) {
        for (const Verb& verb : place.noun->verbs) found.emplace_back(verb.name);
    }
    return found;
}

}  // namespace

std::string completions(std::span<const Noun* const> nouns, std::span<const char* const> words) {
    if (words.empty()) return "";
    const Place place = place_after(nouns, words.first(words.size() - 1));
    if (place.value) return "";
    const std::string_view begun = words.back();
    std::string page;
    for (const std::string_view word : begun.starts_with('-') ? options(place) : names(nouns, place)) {
        if (word.starts_with(begun)) page.append(word) += '\n';
    }
    return page;
}

}  // namespace quill::cli
