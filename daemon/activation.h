// From the store to the system: what was set is put into effect by hooks, programs that platform/hook.h
// finds, soon after a change and when the daemon starts. A hook that fails leaves a line in the log and
// everything stored as it is; the next change tries again.
//
// The settings are those of the whole device, so only the daemon of context 1 puts them into effect. Another
// context's keeps what is set there, and its log says so.
#pragma once

#include <cstdint>

namespace quill {

enum class Setting { kWebServer, kBanner };

// Notes that a setting changed. Several changes at a time are put into effect once.
void activate_later(Setting setting);

// Puts into effect what changed since. Waits for no hook.
void activate_changes(uint32_t store);

// The same for all settings that this system has: it may have lost what the last daemon did.
void activate_all(uint32_t store);

}  // namespace quill
