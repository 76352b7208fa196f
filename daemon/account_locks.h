// The locks of the account files. The system's programs for accounts hold two at a time: the one of all
// files, lckpwdf(3), and for each file that they change "FILE.lock", which contains the holder's process ID.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/file.h"

namespace quill {

constexpr char kPasswordFilesLock[] = "/etc/.pwd.lock";
constexpr std::chrono::seconds kAccountLockTime{3};  // how long a request waits for a lock

// Returns the process that holds the lock of all account files, 0 if none does, -1 if that is a process of
// another PID namespace. Does not take the lock.
pid_t holder_of_account_files();

// Whether the system's programs would find an account file locked: by a process, or by a lock file that names
// none, which they never remove.
bool account_files_are_locked();

// The lock of all account files, while in scope. lckpwdf(3) cannot be called here: it waits with SIGALRM.
class PasswordFilesLock {
 public:
    explicit PasswordFilesLock(Deadline deadline);

    bool held() const { return static_cast<bool>(file_); }

 private:
    Descriptor file_;
};

// The lock of one file, while in scope; the caller holds the lock of all files. Does not wait. Replaces a
// lock that no running process holds.
class AccountFileLock {
 public:
    explicit AccountFileLock(const std::string& path);

    bool held() const { return file_.has_value(); }

 private:
    std::optional<NewFile> file_;
};

}  // namespace quill
