// Accounts of the system's own files, changed as a whole or not at all (daemon/account_changes.h).
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Takes care of what an earlier daemon was in the middle of when it ended; the log says what it was. Waits
// for programs that it left running. Call it before the first request, and before anything that a repair
// could overwrite is changed. False while there is something that cannot be repaired.
bool repair_accounts(uint32_t store);

// Handlers of the account and of the password request. Names are plain names of the daemon's context. An
// account is one of the daemon's when its home is the one that the daemon gives. All others, the system's own
// and people's own alike, are refused with SECURITY_ERR_OTHER_HOME, so that nobody gets at their rights by
// way of the configuration. A name is new when there is no account, group or home of it; lines that an
// account left in other files are removed.
//
// For an account, SET_REQ creates it, with a home below /bootflash/home, or changes it; DEL_REQ removes it
// with its home, mail, roles, locales, SSH keys and user records. What is in the home may go later, or stay
// where root alone can see it (daemon/homes.h). In a change, a stored password and a date are set where they
// are given, roles are added, and no password at all means that the expiry is to be cleared where no date is
// given. The record cannot tell a date to clear from one that is not given: who sets a stored password and
// clears the expiry sends two requests. A stored password must be one that verifiable_password() accepts
// (base/stored_password.h); else SECURITY_ERR_PASSWORD_TEXT is returned.
//
// SECURITY_ERR_ACCOUNT_TOOL comes with the exit status of the program that failed and with its words.
// SECURITY_ERR_ACCOUNTS_IN_USE means that another program held the account files for the three seconds that a
// request waits. The password never goes back.
uint32_t manage_account(uint32_t store, uint32_t operation, void* record);
uint32_t change_password(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
