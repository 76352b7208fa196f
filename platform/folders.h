// Where the daemon of a context and its clients meet, and where that daemon keeps what it is told.
//
// Each virtual device context has a daemon of its own. Context 1 uses two folders themselves, and context N
// the folder vdc_N in each of them. All that lies in the folders follows: sockets, locks, traces, the store.
#pragma once

#include <string>

namespace quill {

// Of the context that the process runs in (sysmgrcmn_vdc_id_get), asked each time: in $QUILL_RUNTIME_DIR,
// else /run/quillsecurity; and in $QUILL_STATE_DIR, else /var/lib/quillsecurity. Throws std::bad_alloc where
// there is no memory to find out the context: nobody is sent to another context's daemon.
std::string runtime_directory();
std::string state_directory();

// The folders that hold those of all contexts, and are context 1's own.
std::string shared_runtime_directory();
std::string shared_state_directory();

}  // namespace quill
