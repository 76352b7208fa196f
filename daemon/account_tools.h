// The system's programs for accounts, and the locks around them.
#pragma once

#include <string>

#include "base/process.h"

namespace quill {

// Locked by every program that edits the account files, lckpwdf(3).
constexpr char kPasswordFilesLock[] = "/etc/.pwd.lock";

// Held while accounts are changed, by the daemon and by each program that it runs for that: a daemon that
// starts waits for programs that its predecessor left running.
//
// It also sets the time that all the programs of one request have together, less than clients wait for the
// daemon.
class AccountLock {
 public:
    // Waits three seconds at most, for this lock and until nobody holds the one of the account files; the log
    // says who does.
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

// Whether a program failed because another one holds the account files.
bool says_locked(const ProgramResult& result);

// Each takes the name that the account files have; days are shadow(5)'s, as text, "" for none.
ProgramResult make_account(const char* stored, const std::string& expiry);
ProgramResult delete_account(const char* stored);  // without home and mail
ProgramResult delete_group(const char* stored);
ProgramResult set_expiry(const char* stored, const std::string& expiry);
ProgramResult set_last_change(const char* stored, int32_t days);
ProgramResult set_stored_password(const char* stored, const char* password);
ProgramResult set_clear_password(const char* stored, const char* password);

constexpr int kPrimaryGroup = 8;  // groupdel(8): the group is another account's primary one

}  // namespace quill
