// The dictionary of easily guessed passwords. Programs that use this link cracklib.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/descriptor.h"

extern "C" {
#include <crack.h>
}

namespace quill {

constexpr char kDictionary[] = "/tovo/etc/quillsecurity/cracklib_dict";

// Returns true if a file of the dictionary exists and is empty: cracklib then objects to no password.
inline bool dictionary_is_empty() {
    for (const char* part : {".pwd", ".pwi", ".hwm"}) {
        char path[sizeof kDictionary + 4];
        snprintf(path, sizeof path, "%s%s", kDictionary, part);
        const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
        char byte;
        if (file && read(file.get(), &byte, 1) != 1) return true;
    }
    return false;
}

struct DictionaryResult {
    enum Outcome { kAccepted, kWeak, kNoDictionary } outcome;
    // Why the password was not accepted, as a clause: "it is based on a dictionary word". Null if it was.
    // Valid until the next check.
    const char* reason;
};

// Checks whether the password is easy to guess. The outcome is kNoDictionary if the dictionary is missing,
// empty or cannot be read. cracklib may then complain on standard error as well.
inline DictionaryResult check_dictionary(const char* password) {
    static constexpr char kNotLoaded[] = "error loading dictionary";  // cracklib's text
    const char* reason = dictionary_is_empty() ? kNotLoaded : FascistCheck(password, kDictionary);
    if (reason == nullptr) return {DictionaryResult::kAccepted, nullptr};
    // cracklib reports this failure by its text only.
    const bool loaded = strcmp(reason, kNotLoaded) != 0;
    return {loaded ? DictionaryResult::kWeak : DictionaryResult::kNoDictionary, reason};
}

}  // namespace quill
