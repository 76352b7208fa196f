// Running ssh-keygen, with three files of fixed names in /tmp for its input, output and errors.
//
// Each file is replaced by a new one before it is used (base/file.h). If that fails, nothing is run.
#pragma once

#include "base/descriptor.h"
#include "library/sshkey/key_text.h"

namespace quill {

constexpr char kTemporaryKey[] = "/tmp/tmpkey.pub";
constexpr char kKeygenOutput[] = "/tmp/outkey.pub";
constexpr char kKeygenErrors[] = "/tmp/errkey.pub";

constexpr size_t kLongestPath = 62;  // characters

// Holds the lock on the three files (flock(2) on /tmp) while in scope, against processes of all users. Waits
// up to 10 seconds for it, longer than any process needs the files, then goes on without.
class KeygenLock {
 public:
    KeygenLock();

 private:
    const Descriptor tmp_;
};

// Returns true if the path fits a command line and is one plain word for the shell.
bool is_safe_path(const char* path);

// Runs `ssh-keygen OPTION -f PATH`. Returns true if it ran to its end, with whatever result; its output is
// then in the two files until remove_keygen_output() deletes them.
bool run_keygen(const char* option, const char* path);
void remove_keygen_output();

// Writes the temporary key. Returns false on failure, with no file left.
bool write_temporary_key(const char* text);

// Deletes the temporary key when destroyed.
struct TemporaryKeyRemover {
    TemporaryKeyRemover() = default;
    ~TemporaryKeyRemover();
    TemporaryKeyRemover(const TemporaryKeyRemover&) = delete;
    TemporaryKeyRemover& operator=(const TemporaryKeyRemover&) = delete;
};

}  // namespace quill
