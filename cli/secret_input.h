// Input of secrets: a line of standard input, or typed at the terminal without echo. Never a word of the
// command line or the environment, which other processes can read.
#pragma once

#include <string>

#include "cli/command.h"
#include "cli/line.h"

namespace quill::cli {

// The option of every verb that takes a secret.
constexpr Argument kFromStdin{"--stdin", "read it from standard input, one line", Argument::kFlag};

struct SecretWanted {
    std::string object;                    // whose secret: "privilege level 3"
    const char* name;                      // "secret" or "password"
    size_t longest;                        // in bytes, at most kLongestLine
    bool new_one;                          // if it is to be set: typed twice
    const char* option = kFromStdin.name;  // with which it is read from standard input
};

// Returns the failure for a password or secret of `object` that cannot be checked because the dictionary of
// easily guessed passwords is missing. `other_remedy`, a clause, is appended to the remedy.
Failure no_dictionary(const std::string& object, const char* name, const std::string& other_remedy = "");

// Returns true if the library refused this user's password only because there is no dictionary: it follows
// the library's own rules, and cracklib has no dictionary.
bool lacks_dictionary(const std::string& user, const char* password);

// Reads the secret, 1 to `longest` bytes without a NUL: from standard input if `option` was given, else from
// the terminal. Throws Failure: kInvalidValue if it is empty, too long or not the same twice, kUsage without
// a terminal.
void read_secret(const SecretWanted& wanted, const Arguments& arguments, Line& secret);

}  // namespace quill::cli
