// What the store keeps of a user: roles, locales, SSH key, user records.
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// The name under which this daemon's records of a user stand, for a name that a client asks by: the plain
// name for a qualified one ("amy#02#") of the daemon's own context, any other name as it is. In place; what
// follows the text is zero.
void make_plain(char (&name)[128]);

// Reads a user's roles. Returns SECURITY_ERR_NOT_FOUND, with an empty list, if none are stored.
uint32_t read_roles(uint32_t store, const char* user, security_user_roles& list);

// Adds roles to those that the user has.
uint32_t add_roles(uint32_t store, const security_user_manage& wish);

// Removes the list of roles, or everything that the store keeps of a user. What is not there counts as
// removed. `dropped`, if given, is increased by the number of records that were there.
uint32_t drop_roles(uint32_t store, const char* user);
uint32_t drop_records(uint32_t store, const char* user, uint32_t* dropped = nullptr);

// Handler of SECURITY_ORPHANS_REQUEST, for DEL_REQ alone: removes the records of users without an account in
// this daemon's context, those of 25 users at most, and tells how many records that were; a client asks until
// it is none. A user is looked for whose roles, locales or SSH key are stored; his user records go with them,
// but user records alone are nobody's sign of an account and stay. Accounts are those of the local files. If
// these cannot be read, nothing is removed and SECURITY_ERR_FILE_READ returned.
uint32_t drop_orphans(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
