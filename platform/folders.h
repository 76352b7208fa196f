// The directories of a context's daemon: the runtime directory with its sockets and lock, and the state
// directory with its store.
//
// Each virtual device context has a daemon of its own. Context 1 uses the two shared directories themselves,
// and context N the folder vdc_N in each of them.
#pragma once

#include <string>

namespace quill {

// Return the directories of the current context, which is determined in each call (sysmgrcmn_vdc_id_get()).
// Throw std::bad_alloc, also if the context cannot be determined because memory ran out.
std::string runtime_directory();
std::string state_directory();

// Return the directories of context 1, which contain those of the other contexts: $QUILL_RUNTIME_DIR, else
// /run/quillsecurity, and $QUILL_STATE_DIR, else /var/lib/quillsecurity.
std::string shared_runtime_directory();
std::string shared_state_directory();

}  // namespace quill
