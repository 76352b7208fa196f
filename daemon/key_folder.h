// The folder of SSH keys in a user's home, and the key pairs in it. The user may put symbolic links or pipes
// there, which root must not follow or open. So all of this runs in a child process with the user's rights.
#pragma once

#include <pwd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/deadline.h"
#include "quillsecurity/records.h"

namespace quill {

struct KeyType {
    const char* name;  // for ssh-keygen
    const char* line;  // the start of its public keys
    const char* path;  // in the folder
    const char* public_path;
    uint32_t default_bits, least_bits, most_bits;
};

constexpr KeyType kRsaPair{"rsa", "ssh-rsa ", "id_rsa", "id_rsa.pub", 2048, 1024, 4096};
constexpr KeyType kDsaPair{"dsa", "ssh-dss ", "id_dsa", "id_dsa.pub", 1024, 1024, 1024};

// What the child reports to the daemon.
struct KeyPairOutcome {
    uint32_t status;
    uint32_t bits;  // of the pair after the command, 0 for none
    bool stopped;   // the user stopped ssh-keygen
};

class KeyFolder;
using KeyPairWork = uint32_t (KeyFolder::*)();

// The folder "~/.ssh" of one user, for one command on one pair. If it exists, it becomes the working
// directory. It and the home must belong to the user and must not be symbolic links.
class KeyFolder {
 public:
    KeyFolder(const passwd& user, const KeyType& type, ssh_key_cmd_rec& command, Deadline end)
        : user_(user), type_(type), command_(command), end_(end) {}

    // Takes the user's rights for the rest of this process, and executes the command.
    KeyPairOutcome run(KeyPairWork work);

    // The commands, as quillsecurity/ssh_keys.h describes them. They return a status.
    uint32_t generate();
    uint32_t import_pair();
    uint32_t export_pair();
    uint32_t remove();
    uint32_t size() { return 0; }  // run() reports it for every command

 private:
    bool become_user() const;
    bool enter(bool make);
    bool has(const char* name) const;
    template <class... Words>
    bool keygen(std::string& printed, Words... words);
    uint32_t bits();
    bool exported_name(std::string& name) const;
    std::string public_line(std::string_view printed) const;

    const passwd& user_;
    const KeyType& type_;
    ssh_key_cmd_rec& command_;
    const Deadline end_;
    bool inside_ = false;
    bool stopped_ = false;
};

}  // namespace quill
