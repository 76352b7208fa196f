// What the entry points of user management share.
#pragma once

#include <ctime>

#include "quillsecurity/users.h"

namespace quill {

// The second from which the account is expired.
void set_expiry(common_user_record& user, const tm& date);

// From now on this process accepts expiry dates that are past.
void accept_expired_users();

}  // namespace quill
