// ssh-keygen, and the three files of fixed names in /tmp through which it is spoken to.
//
// Each is made anew before it is used (common/file_made_anew.h); where that is not possible, nothing is run.
#pragma once

#include "sshkey/key_text.h"

namespace quill {

constexpr char kTemporaryKey[] = "/tmp/tmpkey.pub";
constexpr char kKeygenOutput[] = "/tmp/outkey.pub";
constexpr char kKeygenErrors[] = "/tmp/errkey.pub";

constexpr size_t kLongestPath = 62;

// While in scope no other process uses the three files, whoever it runs as. One that holds them for longer
// than any use of them takes is not waited for.
class KeygenLock {
 public:
    KeygenLock();
    ~KeygenLock();
    KeygenLock(const KeygenLock&) = delete;
    KeygenLock& operator=(const KeygenLock&) = delete;

 private:
    const int descriptor_;
};

// Whether a path fits the command and is one plain word to the shell.
bool fits_command(const char* path);

// Runs `ssh-keygen OPTION -f PATH`, whatever comes of it; false where it could not be run to its end. Its
// output is then in the two files, which stay until they are removed.
bool run_keygen(const char* option, const char* path);
void remove_keygen_output();

// Writes the temporary key, false with nothing left of it where that fails.
bool write_temporary_key(const char* text);

// Removes the temporary key when it goes out of scope.
struct TemporaryKey {
    TemporaryKey() = default;
    ~TemporaryKey();
    TemporaryKey(const TemporaryKey&) = delete;
    TemporaryKey& operator=(const TemporaryKey&) = delete;
};

}  // namespace quill
