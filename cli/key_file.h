// A file with a public key, to be sent to the daemon.
#pragma once

#include <cstdint>
#include <string>

#include "cli/input_file.h"
#include "quillsecurity.h"

namespace quill::cli {

// The file is opened once (cli/input_file.h), and the library checks a copy of it in a private folder. The
// checked bytes are the ones that are sent.
class KeyFile {
 public:
    // Reads and checks the file. Throws Failure if it cannot be read or has no key that this user could log
    // in with.
    KeyFile(const NamedFile& file, const std::string& user);

    // Replaces the user's key by this one. Returns the daemon's status.
    uint32_t send();

    // See InputFile::remove().
    void remove() const { input_.remove(); }

 private:
    void read(const std::string& user);

    const NamedFile file_;
    const InputFile input_;
    uint8_t format_ = SSHKEY_FMT_OPENSSH;
    ssh_key_rec line_{};      // the key if its format is OpenSSH
    ssh_key_new_rec text_{};  // the key in any other format
};

// Takes "DEVICE:PATH", or an absolute path, which names a temporary copy that is deleted after it was read.
// Throws Failure for any other name.
NamedFile key_file_named(const std::string& name);

// Takes only "DEVICE:PATH"; throws Failure for any other name.
NamedFile device_key_file_named(const std::string& name);

}  // namespace quill::cli
