// Changes of an account, each of which is done completely or not at all.
//
// A change takes several steps: programs of the system, and records of the store. Its journal entry is
// written before the first step and erased after the last one. A daemon that finds an entry undoes the
// change, or completes it if it is a deletion. The caller holds the AccountLock (daemon/account_tools.h).
#pragma once

#include <cstdint>
#include <string>

#include "daemon/account_files.h"
#include "quillsecurity.h"

namespace quill {

constexpr size_t kStoredName = 132;

// Returns true if the journal has no entry.
bool nothing_is_pending(uint32_t store);

// Undoes or completes the change in the journal, if there is one, and logs that. Returns false on failure:
// then no other change may begin.
bool repair_pending(uint32_t store);

// Removes the lines that a former account of this name left in files other than passwd and group. Returns
// SECURITY_ERR_NOT_FOUND if there are none or an account has the name, SECURITY_ERR_ACCOUNTS_IN_USE if they
// cannot be removed, and SECURITY_ERR_ACCOUNT_TOOL if the files cannot be read.
uint32_t remove_leftover_lines(const char* stored);

// Each returns the status for the reply, and sets the error text and the return code of a program that
// failed. `expiry` is in days since 1970, "" for none.
uint32_t create_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry);
uint32_t modify_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry);
uint32_t remove_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName]);

}  // namespace quill
