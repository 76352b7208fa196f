// The folder of SSH keys in a user's home, and the key pairs in it. What lies there is the user's to arrange:
// a link or a pipe must not lead root anywhere. So all of this runs in a child process with the user's
// rights.
#pragma once

#include <pwd.h>

#include <cstdint>

#include "base/secret_bytes.h"
#include "daemon/await_child.h"
#include "quillsecurity/records.h"

namespace quill {

struct KeyType {
    const char* name;  // as ssh-keygen takes it
    const char* line;  // how a public key of it begins
    const char* path;  // in the folder
    const char* public_path;
    uint32_t default_bits, least_bits, most_bits;
};

constexpr KeyType kRsaPair{"rsa", "ssh-rsa ", "id_rsa", "id_rsa.pub", 2048, 1024, 4096};
constexpr KeyType kDsaPair{"dsa", "ssh-dss ", "id_dsa", "id_dsa.pub", 1024, 1024, 1024};

// What a child sends to the daemon.
struct KeyPairOutcome {
    uint32_t status;
    uint32_t bits;  // of the pair that is there now
    bool held;      // the user stopped ssh-keygen
};

class KeyFolder;
using KeyPairWork = uint32_t (KeyFolder::*)();

// The folder "~/.ssh" of one user, for one command about one pair. Where it is there, it is the working
// directory. Neither it nor the home is reached through a link, and both are the user's own.
class KeyFolder {
 public:
    KeyFolder(const passwd& user, const KeyType& type, ssh_key_cmd_rec& command, Clock::time_point end)
        : user_(user), type_(type), command_(command), end_(end) {}

    // Takes on the user's rights, for good, and does the work.
    KeyPairOutcome run(KeyPairWork work);

    // What quillsecurity/ssh_keys.h says of each command; these return its status.
    uint32_t generate();
    uint32_t import_pair();
    uint32_t export_pair();
    uint32_t remove();
    uint32_t size() { return 0; }  // which every command tells

 private:
    bool become_user() const;
    bool enter(bool make);
    bool has(const char* name) const;
    template <class... Words>
    bool keygen(SecretBytes& printed, Words... words);
    uint32_t bits();
    bool exported_name(std::string& name) const;
    SecretBytes public_line(const SecretBytes& printed) const;

    const passwd& user_;
    const KeyType& type_;
    ssh_key_cmd_rec& command_;
    const Clock::time_point end_;
    bool inside_ = false;
    bool held_ = false;
};

}  // namespace quill
