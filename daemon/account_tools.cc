#include "daemon/account_tools.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "base/file.h"
#include "base/wiped.h"
#include "daemon/account_locks.h"
#include "daemon/homes.h"
#include "platform/service.h"

namespace quill {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kRequestTime{35};  // clients wait for 60
constexpr seconds kUndoTime{15};     // to undo a change, however late that begins
constexpr seconds kProgramTime{30};  // lckpwdf(3) alone waits for 15
constexpr milliseconds kPause{50};

Deadline deadline;

// Exit statuses of shadow-utils for "can't update" the files of passwords, groups, subordinate user IDs and
// subordinate group IDs, useradd(8). chpasswd(8) and chage(1) have only the first one.
constexpr int kCannotUpdate[] = {1, 10, 16, 18};

// Opened once: programs that are left running hold it too, and all share one lock.
int lock_file() {
    static const int kLock = open_lock_file(runtime_directory() + "/accounts.lock");
    return kLock;
}

bool wait_for_locks() {
    const Deadline end = after(kAccountLockTime);
    for (;; std::this_thread::sleep_for(kPause)) {
        const bool locked = lock_file() < 0 || flock(lock_file(), LOCK_EX | LOCK_NB) == 0;
        const pid_t holder = locked ? holder_of_account_files() : 0;
        if (locked && holder == 0) return true;
        if (!passed(end)) continue;
        if (locked)
            syslog(LOG_ERR, "accounts cannot be changed: process %d holds %s", holder, kPasswordFilesLock);
        else
            syslog(LOG_ERR, "accounts cannot be changed: another process holds %s/accounts.lock",
                   runtime_directory().c_str());
        if (locked) flock(lock_file(), LOCK_UN);
        return false;
    }
}

AccountToolResult run(std::initializer_list<const char*> words, std::string_view input = {}) {
    const char* name = *words.begin();
    if (passed(deadline))
        return {{ProgramResult::kNotStarted, std::string(name) + ": there is no time left\n", true}};
    AccountToolResult result{run_program({.words = words, .input = input, .held = lock_file()},
                                         std::min(deadline, after(kProgramTime)))};
    if (result.timed_out) syslog(LOG_ERR, "%s was ended: it did not finish in time", name);
    // The status does not tell a locked file from a failed write, so the locks are looked at. They are rarely
    // released between the two: for the lock of all files a program has waited 15 seconds by then, and a
    // process that holds one of the others holds that lock too.
    result.files_locked = std::ranges::count(kCannotUpdate, result.code) != 0 && account_files_are_locked();
    if (result.files_locked) syslog(LOG_ERR, "%s", log_safe(result.output).c_str());
    return result;
}

struct PasswordLine {
    char text[1024];
};

AccountToolResult run_chpasswd(std::initializer_list<const char*> words, const char* stored,
                               const char* password) {
    Wiped<PasswordLine> line;
    snprintf(line.text, sizeof line.text, "%s:%s\n", stored, password);
    return run(words, line.text);
}

}  // namespace

AccountLock::AccountLock() : held_(wait_for_locks()) { deadline = after(kRequestTime); }

void allow_time_to_undo() { deadline = std::max(deadline, after(kUndoTime)); }

AccountLock::~AccountLock() {
    if (held_) flock(lock_file(), LOCK_UN);
}

AccountToolResult make_account(const char* stored, const std::string& expiry) {
    mkdir("/bootflash", 0755);
    mkdir(kHomes, 0755);
    // --badname: useradd would refuse the '#' of a context's suffix; the name has been checked.
    return run({"/usr/sbin/useradd", "--badname", "--create-home", "--home-dir", home_of(stored).c_str(),
                "--expiredate", expiry.c_str(), "--", stored});
}

AccountToolResult delete_account(const char* stored) { return run({"/usr/sbin/userdel", "--", stored}); }

AccountToolResult delete_group(const char* stored) { return run({"/usr/sbin/groupdel", "--", stored}); }

AccountToolResult set_expiry(const char* stored, const std::string& expiry) {
    return run({"/usr/sbin/usermod", "--expiredate", expiry.c_str(), "--", stored});
}

AccountToolResult set_last_change(const char* stored, int32_t days) {
    return run({"/usr/bin/chage", "--lastday", std::to_string(days).c_str(), "--", stored});
}

AccountToolResult set_stored_password(const char* stored, const char* password) {
    return run_chpasswd({"/usr/sbin/chpasswd", "--encrypted"}, stored, password);
}

AccountToolResult set_clear_password(const char* stored, const char* password) {
    return run_chpasswd({"/usr/sbin/chpasswd"}, stored, password);
}

}  // namespace quill
