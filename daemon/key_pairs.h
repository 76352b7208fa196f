// Key pairs in users' homes: generated, imported, exported and deleted with the user's rights.
#pragma once

#include <cstdint>

namespace quill {

// Handlers of ssh_key_cmd_rec: one for the kinds that import and export, one for all others. They do not use
// the store. quillsecurity/ssh_keys.h says what each kind does and returns.
uint32_t transfer_key_pair(uint32_t store, uint32_t operation, void* record);
uint32_t command_key_pair(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
