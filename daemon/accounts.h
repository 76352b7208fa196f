// Accounts of the system's own files, changed as a whole or not at all.
//
// A change takes several steps: programs of the system, and records of the store. Before the first one the
// store notes what is under way, and after the last one the note goes. A daemon that finds a note when it
// starts undoes what was begun, or, for a deletion, finishes it.
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Takes care of what an earlier daemon was in the middle of when it ended; the log says what it was. Waits
// for programs that it left running. Call it before the first request, and before anything that a repair
// could overwrite is changed. False while there is something that cannot be repaired.
bool repair_accounts(uint32_t store);

// Handlers of the account and of the password request. Names are plain names of the daemon's context. An
// account is one of the daemon's when its home is the one that the daemon gives: all others, the system's own
// and people's own alike, are refused, so that nobody gets at their rights by way of the configuration. A
// name is new when there is no group, home or shadow entry of it either.
//
// For an account, SET_REQ creates it, with a home below /bootflash/home, or changes it; DEL_REQ removes it
// with its home, roles, locales, SSH keys and user records. In a change, a stored password and a date are set
// where they are given, roles are added, and no password at all means that the expiry is to be cleared where
// no date is given: to clear both in one request is not possible. SECURITY_ERR_ACCOUNT_TOOL comes with the
// exit status of the program that failed and with its words. The password never goes back.
uint32_t manage_account(uint32_t store, uint32_t operation, void* record);
uint32_t change_password(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
