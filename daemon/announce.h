// Announces changes of users on the message transport: an account that was added, deleted or modified, a
// password that was changed, and a list of roles that was replaced or lost a role (as a modification). An
// announcement cannot carry locales, keys or user records. Logins are not announced by the daemon.
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Sets the handle on which announcements are sent. Until then, or with 0, nothing is announced.
void announce_on(uint32_t mts_handle);

// Announces a change (enum security_user_change), with the roles that the user has after it and a number that
// counts announcements from 1. A failure is only logged.
void announce_user_change(uint32_t type, const char* user, const security_user_roles& roles);

}  // namespace quill
