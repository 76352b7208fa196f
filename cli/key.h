// Files of SSH public keys, for verbs that take one beside other things.
#pragma once

#include <string>

namespace quill::cli {

// Throws Failure where a file of a device, "bootflash:PATH", holds no key that this user could log in with. A
// path from the root is left to the daemon.
void check_key_file(const std::string& name, const std::string& user);

}  // namespace quill::cli
