// The key pair in a user's home: made, imported, exported and deleted with ssh-keygen, as the user.
#pragma once

#include <cstdint>

namespace quill {

// Handlers of ssh_key_cmd_rec: one for the kinds that import and export, one for all others. The store is not
// used. quillsecurity/ssh_keys.h says what each kind does and answers.
uint32_t transfer_key_pair(uint32_t store, uint32_t operation, void* record);
uint32_t command_key_pair(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
