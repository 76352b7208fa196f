// Changes of users, told to the rest of the system: an account that was added, deleted or modified, a list of
// roles that was replaced or lost one (modified as well), and a password that was changed. Lists of locales,
// keys and user records are nothing that an announcement could carry; logins are no business of the daemon.
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Where announcements go: a handle for sending on the message transport. Until it is set they go nowhere.
void announce_on(uint32_t mts_handle);

// Announces a change that was made (enum security_user_change), with the roles that the user holds after it.
// Announcements are counted from 1 in their number. Nothing fails by one that cannot be sent; the log says
// so.
void announce_user_change(uint32_t type, const char* user, const security_user_roles& roles);

}  // namespace quill
