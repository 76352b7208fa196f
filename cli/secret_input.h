// Secrets on their way in: a line of standard input, or typed at the terminal, unseen. They are never words
// of the command line or of the environment, which other processes can look at.
#pragma once

#include <string>

#include "cli/command.h"
#include "cli/line.h"

namespace quill::cli {

// The option of every verb that takes a secret.
constexpr Argument kFromStdin{"--stdin", "read it from standard input, one line", Argument::kFlag};

struct SecretWanted {
    std::string object;                    // whose it is: "privilege level 3"
    const char* name;                      // what it is called: "secret"
    size_t longest;                        // up to kLongestLine
    bool new_one;                          // typed twice then
    const char* option = kFromStdin.name;  // which takes it from standard input
};

// What is said where a password or secret of `object` cannot be judged, since the dictionary of easily
// guessed passwords is missing. `other_remedy`, a clause, follows the usual one.
Failure no_dictionary(const std::string& object, const char* name, const std::string& other_remedy = "");

// Reads the secret, 1 to `longest` bytes without a NUL, from standard input where --stdin was given, else
// from the terminal. Throws Failure: kInvalidValue for one that is empty, too long or not the same twice,
// kUsage where there is no terminal.
void read_secret(const SecretWanted& wanted, const Arguments& arguments, Line& secret);

}  // namespace quill::cli
