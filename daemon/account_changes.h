// The changes of an account, each done as a whole or not at all.
//
// A change takes several steps: programs of the system, and records of the store. Its journal entry is
// written before the first one and erased after the last one. A daemon that finds an entry undoes what was
// begun, or, for a deletion, finishes it. The lock of accounts (daemon/account_tools.h) is held by the
// caller.
#pragma once

#include <cstdint>
#include <string>

#include "daemon/account_files.h"
#include "quillsecurity.h"

namespace quill {

constexpr size_t kStoredName = 132;

// Whether no change is left unfinished in the journal.
bool nothing_is_pending(uint32_t store);

// Undoes or finishes what an earlier daemon was in the middle of; the log says what it was. False while that
// fails: nothing new may be begun then.
bool repair_pending(uint32_t store);

// Removes the lines that an account of this name, which is gone, left in files other than passwd and group.
// Returns SECURITY_ERR_NOT_FOUND if there are none, and SECURITY_ERR_ACCOUNTS_IN_USE if they cannot be
// removed.
uint32_t remove_leftover_lines(const char* stored);

// Each returns the status to answer, and fills in the error text and the return code of a program that
// failed. `expiry` is the day that shadow(5) counts, "" for none.
uint32_t create_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry);
uint32_t modify_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry);
uint32_t remove_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName]);

}  // namespace quill
