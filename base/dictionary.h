// The dictionary of easily guessed passwords. Programs that use this link cracklib.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <initializer_list>

extern "C" {
#include <crack.h>
}

namespace quill {

constexpr char kDictionary[] = "/tovo/etc/quillsecurity/cracklib_dict";

// The text that cracklib returns if it finds no dictionary, and dictionary_objection() if it is empty.
constexpr char kNoDictionary[] = "error loading dictionary";

// Cracklib finds nothing in an empty dictionary: it would object to no password.
inline bool dictionary_is_empty() {
    for (const char* part : {".pwd", ".pwi", ".hwm"}) {
        char path[sizeof kDictionary + 4];
        snprintf(path, sizeof path, "%s%s", kDictionary, part);
        const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
        char byte;
        if (descriptor < 0) continue;
        const bool empty = read(descriptor, &byte, 1) != 1;
        close(descriptor);
        if (empty) return true;
    }
    return false;
}

// Returns what makes the password easy to guess, as a clause: "it is based on a dictionary word"; null if
// nothing does, kNoDictionary if the dictionary cannot be used. The text is owned by cracklib and valid until
// the next call.
inline const char* dictionary_objection(const char* password) {
    return dictionary_is_empty() ? kNoDictionary : FascistCheck(password, kDictionary);
}

}  // namespace quill
