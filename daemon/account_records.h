// The records of a user in the store: roles, locales, SSH keys and user records.
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Converts the name of a request to the one under which the user's records are stored: the qualified name
// ("amy#02#") of a user of this daemon's context to the plain one; other names are unchanged. The rest of the
// field is zero.
void make_plain(char (&name)[128]);

// Reads a user's roles. Returns SECURITY_ERR_NOT_FOUND, with an empty list, if none are stored.
uint32_t read_roles(uint32_t store, const char* user, security_user_roles& list);

// Adds the roles of the record to those that the user has. Returns SECURITY_ERR_TOO_MANY_ROLES, and stores
// nothing, if the list has no room.
uint32_t add_roles(uint32_t store, const security_user_manage& wish);

// Removes the list of roles, or all records of a user. Returns 0 also if there are none. Adds the number of
// removed records to `dropped`.
uint32_t drop_roles(uint32_t store, const char* user);
uint32_t drop_records(uint32_t store, const char* user, uint32_t* dropped = nullptr);

// Handler of SECURITY_ORPHANS_REQUEST, which has DEL_REQ only: removes the records of at most 25 users
// without an account in the local files, and returns the number of removed records; the client repeats the
// request until it is 0. Only users with stored roles, locales or SSH keys are considered, and their user
// records are removed as well: user records alone need no account. Returns SECURITY_ERR_FILE_READ, and
// removes nothing, if the account files cannot be read.
uint32_t drop_orphans(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
