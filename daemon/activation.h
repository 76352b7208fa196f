// Applies stored settings to the system by hooks (platform/hook.h), soon after a change and when the daemon
// starts. A hook that fails is logged and changes nothing in the store; the next change tries again.
//
// These are settings of the whole device, so only the daemon of context 1 applies them. The daemon of another
// context only stores them, and says so in its log.
#pragma once

#include <cstdint>

namespace quill {

enum class Setting { kWebServer, kBanner, kCount };

// Marks a setting as changed. Several changes of a setting are applied together.
void activate_later(Setting setting);

// Applies the settings that are marked, and clears the marks. Does not wait for hooks.
void activate_changes(uint32_t store);

// The same for all settings, in context 1: what an earlier daemon applied may have been lost.
void activate_all(uint32_t store);

}  // namespace quill
