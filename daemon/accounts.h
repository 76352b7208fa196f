// Accounts in the local account files. Each change is done completely or not at all
// (daemon/account_changes.h).
#pragma once

#include <cstdint>

#include "quillsecurity.h"

namespace quill {

// Undoes or completes a change that an earlier daemon was executing when it ended, and logs that. Waits for
// programs that it left running. To be called before the first request, and before anything is changed that a
// repair could overwrite. Returns false if that failed; it is tried again before the next change.
bool repair_accounts(uint32_t store);

// Handlers of the account request and the password request. Names are plain names of the daemon's context. An
// account belongs to the daemon if its home is the one that the daemon gives. All other accounts are refused
// with SECURITY_ERR_OTHER_HOME: nobody may get their rights by a request. An account can be created if no
// account, group or home has its name; lines that a former account left in other files are removed.
//
// For an account, SET_REQ creates it, with a home below /bootflash/home, or changes it; DEL_REQ removes it
// with its home, mail, roles, locales, SSH keys and user records. The contents of the home may be removed
// later, or stay where only root can access them (daemon/homes.h). A change sets a stored password and an
// expiry date if they are given, and adds roles; if neither is given, it clears the expiry. So it takes two
// requests to set a stored password and to clear the expiry. A stored password must be one that
// verifiable_password() accepts (base/stored_password.h); else SECURITY_ERR_PASSWORD_TEXT is returned.
//
// With SECURITY_ERR_ACCOUNT_TOOL, the record contains the exit status and the error output of the program
// that failed. SECURITY_ERR_ACCOUNTS_IN_USE means that another program held a lock of the account files for
// the three seconds that a request waits. The reply never contains the password.
uint32_t manage_account(uint32_t store, uint32_t operation, void* record);
uint32_t change_password(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
