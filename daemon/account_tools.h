// The system's programs for accounts, and the daemon's lock around them.
#pragma once

#include <string>

#include "base/process.h"

namespace quill {

// Held while accounts are changed, by the daemon and by each program that it runs for that: a daemon that
// starts waits for programs that its predecessor left running.
//
// Sets the time that all programs of one request have together, which is less than clients wait for a reply.
class AccountLock {
 public:
    // Waits at most kAccountLockTime for this lock, and until no process holds the lock of the account files.
    // On failure, logs which process holds a lock.
    AccountLock();
    ~AccountLock();
    AccountLock(const AccountLock&) = delete;
    AccountLock& operator=(const AccountLock&) = delete;

    bool held() const { return held_; }

 private:
    bool held_;
};

// To be called before a change is undone: the time of the request may be used up by then.
void allow_time_to_undo();

// The output of a program is what it wrote to standard error.
struct AccountToolResult : ProgramResult {
    bool files_locked = false;  // it failed, and another process holds a lock of the account files
};

// Each takes the name in the account files; dates are in days since 1970, as text, "" for none.
AccountToolResult make_account(const char* stored, const std::string& expiry);
AccountToolResult delete_account(const char* stored);  // without home and mail
AccountToolResult delete_group(const char* stored);
AccountToolResult set_expiry(const char* stored, const std::string& expiry);
AccountToolResult set_last_change(const char* stored, int32_t days);
AccountToolResult set_stored_password(const char* stored, const char* password);
AccountToolResult set_clear_password(const char* stored, const char* password);

constexpr int kPrimaryGroup = 8;  // groupdel(8): the group is another account's primary one

}  // namespace quill
