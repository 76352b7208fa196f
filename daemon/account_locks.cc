#include "daemon/account_locks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <thread>

#include "daemon/account_files.h"

namespace quill {
namespace {

constexpr std::chrono::milliseconds kPause{50};

struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

std::string lock_of(const std::string& path) { return path + ".lock"; }

enum class LockFile { kMissing, kEmpty, kStale, kHeld };

// Looks at a "FILE.lock". It is stale if the process in it has ended, or had the process ID of this one.
LockFile look_at(const std::string& lock) {
    const Descriptor file(open(lock.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) return errno == ENOENT ? LockFile::kMissing : LockFile::kHeld;
    char text[16] = "";
    pid_t holder = 0;
    if (read(file.get(), text, sizeof text - 1) < 0) return LockFile::kHeld;
    std::from_chars(text, text + sizeof text, holder);
    if (holder <= 0) return LockFile::kEmpty;
    const bool runs = holder != getpid() && (kill(holder, 0) == 0 || errno != ESRCH);
    return runs ? LockFile::kHeld : LockFile::kStale;
}

}  // namespace

pid_t holder_of_account_files() {
    const Descriptor file(open(kPasswordFilesLock, O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    struct flock lock = whole_file();
    if (!file || fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
    return lock.l_pid > 0 ? lock.l_pid : -1;
}

bool account_files_are_locked() {
    if (holder_of_account_files() != 0) return true;
    for (const AccountFile file : {AccountFile::kPasswd, AccountFile::kShadow, AccountFile::kGroup,
                                   AccountFile::kGshadow, AccountFile::kSubuid, AccountFile::kSubgid}) {
        const LockFile lock = look_at(lock_of(path_of(file)));
        if (lock == LockFile::kHeld || lock == LockFile::kEmpty) return true;
    }
    return false;
}

PasswordFilesLock::PasswordFilesLock(Deadline deadline) : file_(open_lock_file(kPasswordFilesLock)) {
    struct flock lock = whole_file();
    while (file_ && fcntl(file_.get(), F_SETLK, &lock) != 0) {
        if ((errno != EACCES && errno != EAGAIN) || passed(deadline)) {
            file_.reset();
            return;
        }
        std::this_thread::sleep_for(kPause);
    }
}

AccountFileLock::AccountFileLock(const std::string& path) {
    const std::string lock = lock_of(path), holder = std::to_string(getpid());
    for (int attempt = 0; attempt < 2 && !file_; ++attempt) {
        file_.emplace(lock, 0600);
        if (*file_) {
            if (!file_->write({holder.c_str(), holder.size() + 1})) file_.reset();
            return;
        }
        // An empty file is replaced as well: no process is about to write its ID into it, since only a holder
        // of the lock of all files may, and that is the caller.
        const bool held = errno != EEXIST || look_at(lock) == LockFile::kHeld;
        file_.reset();
        if (held) return;
        unlink(lock.c_str());
    }
}

}  // namespace quill
