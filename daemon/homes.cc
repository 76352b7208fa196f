#include "daemon/homes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>

#include "base/process.h"
#include "daemon/account_files.h"
#include "platform/service.h"

namespace quill {
namespace {

using std::chrono::milliseconds;

constexpr char kOldHomes[] = "/bootflash/home/.deleted";
constexpr milliseconds kTimeInPlace{2000};
constexpr milliseconds kTimeOfOne{600000};  // then it is left to the next daemon

// rm(1) follows no links, not even those that are made while it runs.
RunningProgram remove_tree(const std::string& path) {
    return RunningProgram({{"/bin/rm", "-rf", "--one-file-system", "--", path.c_str()}});
}

// The removal that is under way. It runs by itself: begun anew each time, rm would read a large folder again
// and again and remove nothing.
struct Removal {
    explicit Removal(const std::string& old_home)
        : path(old_home), program(remove_tree(path)), deadline(after(kTimeOfOne)) {}

    const std::string path;
    RunningProgram program;
    const Deadline deadline;
};
std::optional<Removal> removal;
std::set<std::string> given_up;

// The first of its reasons; the names in it are the user's.
std::string reason_of(const ProgramResult& result) {
    if (result.timed_out) return "there was no time for the rest";
    return log_safe(result.errors.substr(0, result.errors.find('\n')));
}

bool is_there(const std::string& path) {
    struct stat facts;
    return lstat(path.c_str(), &facts) == 0;
}

// The folder for old homes, made if it is missing; false, with errno set, unless it is closed to all but
// root.
bool prepare_folder() {
    if (mkdir(kOldHomes, 0700) != 0 && errno != EEXIST) return false;
    struct stat facts;
    if (lstat(kOldHomes, &facts) != 0) return false;
    if (S_ISDIR(facts.st_mode) && facts.st_uid == geteuid() && (facts.st_mode & 077) == 0) return true;
    errno = EPERM;
    return false;
}

// The home gets a new folder of its own, so that rename(2) finds nothing under the new name, whatever kind of
// file the home is.
bool move_home(const std::string& home, const char* stored) {
    const std::string pattern = std::string(kOldHomes) + "/" + stored + ".XXXXXX";
    std::string folder = pattern;
    bool made = false;
    // Another context's daemon may remove the empty parent folder in between.
    for (int tries = 0; !made && tries < 3; ++tries) {
        if (!prepare_folder()) return false;
        folder = pattern;
        made = mkdtemp(folder.data()) != nullptr;
        if (!made && errno != ENOENT) return false;
    }
    if (!made) return false;
    if (rename(home.c_str(), (folder + "/home").c_str()) == 0) return true;
    const int error = errno;
    rmdir(folder.c_str());
    errno = error;
    return false;
}

// One that may still be removed; empty if there is none.
std::string next_old_home() {
    const auto close = [](DIR* folder) { closedir(folder); };
    const std::unique_ptr<DIR, decltype(close)> folder(opendir(kOldHomes), close);
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        std::string path = std::string(kOldHomes) + "/" + entry->d_name;
        if (*entry->d_name != '.' && !given_up.contains(path)) return path;
    }
    return "";
}

void conclude_removal() {
    const ProgramResult& result = removal->program.result();
    if (!result.ok()) {
        syslog(LOG_ERR, "what is left of a deleted home stays in %s until the next start: %s",
               removal->path.c_str(), reason_of(result).c_str());
        given_up.insert(removal->path);
    }
    removal.reset();
}

}  // namespace

bool set_home_aside(const char* stored) {
    const std::string home = home_of(stored);
    if (!is_there(home) || move_home(home, stored)) return true;
    syslog(LOG_ERR, "home %s cannot be set aside: %m; removing what is in it", home.c_str());
    RunningProgram program = remove_tree(home);
    if (!program.wait(after(kTimeInPlace))) program.kill();
    const ProgramResult& removed = program.result();
    // A full disk has room for the new name by now.
    if (!is_there(home) || move_home(home, stored)) return true;
    syslog(LOG_ERR, "home %s stays, and so does what is left in it: %s", home.c_str(),
           reason_of(removed).c_str());
    return false;
}

void remove_mail(const char* stored) {
    const std::string mail = std::string("/var/mail/") + stored;
    struct stat facts;
    if (lstat(mail.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode) || uid_is_used(facts.st_uid)) return;
    if (unlink(mail.c_str()) != 0) syslog(LOG_ERR, "mail %s stays: %m", mail.c_str());
}

bool remove_old_homes(milliseconds time) {
    const Deadline end = after(time);
    do {
        if (!removal) {
            const std::string path = next_old_home();
            if (path.empty()) {
                rmdir(kOldHomes);
                return false;
            }
            removal.emplace(path);
        }
        if (removal->program.wait(end)) {
            conclude_removal();
        } else if (std::chrono::steady_clock::now() >= removal->deadline) {
            removal->program.kill();
            conclude_removal();
        }
    } while (std::chrono::steady_clock::now() < end);
    return true;
}

}  // namespace quill
