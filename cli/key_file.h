// The public key of a file, on its way to the daemon.
#pragma once

#include <cstdint>
#include <string>

#include "cli/input_file.h"
#include "quillsecurity.h"

namespace quill::cli {

// The file is opened once (cli/input_file.h) and a copy of it, in a folder of the program's own, judged by
// the library. What was judged is what is sent.
class KeyFile {
 public:
    // Throws Failure where the file holds no key that this user could log in with, in words that say why, and
    // where it cannot be read.
    KeyFile(const NamedFile& file, const std::string& user);

    // Gives the key to the user, in place of the one he has. Returns the daemon's status.
    uint32_t send();

    // As InputFile::remove().
    void remove() const { input_.remove(); }

 private:
    void read(const std::string& user);

    const NamedFile file_;
    const InputFile input_;
    uint8_t format_ = SSHKEY_FMT_OPENSSH;
    ssh_key_rec line_{};      // the key, where that is its format
    ssh_key_new_rec text_{};  // and where it is another
};

// "DEVICE:PATH" or a path from the root, which names a temporary copy: one that nobody wants to keep once it
// was read. Throws Failure for any other name.
NamedFile key_file_named(const std::string& name);

// "DEVICE:PATH" alone.
NamedFile device_key_file_named(const std::string& name);

}  // namespace quill::cli
