#include "daemon/account_tools.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "base/descriptor.h"
#include "daemon/homes.h"
#include "platform/service.h"

namespace quill {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kRequestTime{35};  // clients wait for 60
constexpr seconds kUndoTime{15};     // in addition, where that was not enough
constexpr seconds kProgramTime{30};  // lckpwdf(3) alone waits for 15
constexpr seconds kLockTime{3};
constexpr milliseconds kPause{50};

Deadline deadline;

int lock_file() {
    static const int kLock = [] {
        const std::string path = runtime_directory() + "/accounts.lock";
        return open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    }();
    return kLock;
}

// The process that holds the account files, 0 if nobody does. Only asked: the programs take the lock
// themselves.
pid_t holder_of_account_files() {
    const Descriptor file(open(kPasswordFilesLock, O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (!file || fcntl(file.get(), F_GETLK, &whole) != 0 || whole.l_type == F_UNLCK) return 0;
    return whole.l_pid > 0 ? whole.l_pid : -1;  // one of another namespace has no number here
}

bool wait_for_locks() {
    const Deadline end = after(kLockTime);
    for (;; std::this_thread::sleep_for(kPause)) {
        const bool locked = lock_file() < 0 || flock(lock_file(), LOCK_EX | LOCK_NB) == 0;
        const pid_t holder = locked ? holder_of_account_files() : 0;
        if (locked && holder == 0) return true;
        if (std::chrono::steady_clock::now() < end) continue;
        if (locked)
            syslog(LOG_ERR, "accounts cannot be changed: process %d holds %s", holder, kPasswordFilesLock);
        else
            syslog(LOG_ERR, "accounts cannot be changed: another process holds %s/accounts.lock",
                   runtime_directory().c_str());
        if (locked) flock(lock_file(), LOCK_UN);
        return false;
    }
}

ProgramResult run(std::initializer_list<const char*> words, std::string_view input = {}) {
    if (std::chrono::steady_clock::now() >= deadline)
        return {ProgramResult::kNotStarted, std::string(*words.begin()) + ": there is no time left\n", true};
    ProgramResult result = run_program({words, input, lock_file()}, std::min(deadline, after(kProgramTime)));
    if (result.timed_out) syslog(LOG_ERR, "%s was ended: it did not finish in time", *words.begin());
    if (says_locked(result)) syslog(LOG_ERR, "%s", log_safe(result.errors).c_str());
    return result;
}

// "NAME:PASSWORD" on standard input, wiped afterwards.
class PasswordLine {
 public:
    PasswordLine(const char* stored, const char* password) {
        length_ = static_cast<size_t>(snprintf(line_, sizeof line_, "%s:%s\n", stored, password));
    }
    ~PasswordLine() { OPENSSL_cleanse(line_, sizeof line_); }
    PasswordLine(const PasswordLine&) = delete;
    PasswordLine& operator=(const PasswordLine&) = delete;

    std::string_view text() const { return {line_, std::min(length_, sizeof line_ - 1)}; }

 private:
    char line_[1024];
    size_t length_;
};

}  // namespace

AccountLock::AccountLock() : held_(wait_for_locks()) { deadline = after(kRequestTime); }

void allow_time_to_undo() { deadline = std::max(deadline, after(kUndoTime)); }

AccountLock::~AccountLock() {
    if (held_) flock(lock_file(), LOCK_UN);
}

bool says_locked(const ProgramResult& result) {
    return !result.ok() && result.errors.find(": cannot lock ") != std::string::npos;
}

ProgramResult make_account(const char* stored, const std::string& expiry) {
    mkdir("/bootflash", 0755);
    mkdir(kHomes, 0755);
    // The name has been checked already; useradd would not accept the '#' of a context's suffix.
    return run({"/usr/sbin/useradd", "--badname", "--create-home", "--home-dir", home_of(stored).c_str(),
                "--expiredate", expiry.c_str(), "--", stored});
}

ProgramResult delete_account(const char* stored) { return run({"/usr/sbin/userdel", "--", stored}); }

ProgramResult delete_group(const char* stored) { return run({"/usr/sbin/groupdel", "--", stored}); }

ProgramResult set_expiry(const char* stored, const std::string& expiry) {
    return run({"/usr/sbin/usermod", "--expiredate", expiry.c_str(), "--", stored});
}

ProgramResult set_last_change(const char* stored, int32_t days) {
    return run({"/usr/bin/chage", "--lastday", std::to_string(days).c_str(), "--", stored});
}

ProgramResult set_stored_password(const char* stored, const char* password) {
    return run({"/usr/sbin/chpasswd", "--encrypted"}, PasswordLine(stored, password).text());
}

ProgramResult set_clear_password(const char* stored, const char* password) {
    return run({"/usr/sbin/chpasswd"}, PasswordLine(stored, password).text());
}

}  // namespace quill
