// Functions that the entry points of user management share.
#pragma once

#include <ctime>

#include "quillsecurity/users.h"

namespace quill {

// Stores the date and time at which the account expires.
void set_expiry(common_user_record& user, const tm& date);

// After this call, the process may set expiry dates that are past.
void accept_expired_users();

}  // namespace quill
