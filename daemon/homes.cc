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

#include "base/block.h"
#include "base/process.h"
#include "daemon/account_files.h"
#include "platform/service.h"

namespace quill {
namespace {

using std::chrono::milliseconds;

const std::string kOldHomes = home_of(".deleted");
constexpr milliseconds kTimeInPlace{2000};
constexpr milliseconds kTimeOfOne{600000};

// rm(1) does not follow symbolic links, not even those that are created while it runs.
Child remove_tree(const std::string& path) {
    return Child::run({.words = {"/bin/rm", "-rf", "--one-file-system", "--", path.c_str()}});
}

// The removal that is running. It is not restarted for each call: rm would read a large folder again each
// time and remove nothing.
struct Removal {
    explicit Removal(const std::string& old_home)
        : path(old_home), program(remove_tree(path)), deadline(after(kTimeOfOne)) {}

    const std::string path;
    Child program;
    const Deadline deadline;
};
std::optional<Removal> removal;
std::set<std::string> given_up;

// Returns the first line of rm's errors, made safe because it contains names that the user chose.
std::string reason_of(const ProgramResult& result) {
    if (result.timed_out) return "there was no time for the rest";
    return log_safe(result.output.substr(0, result.output.find('\n')));
}

bool is_there(const std::string& path) {
    struct stat facts;
    return lstat(path.c_str(), &facts) == 0;
}

// Creates the folder for old homes if it is missing. Returns false with errno on failure, and if others than
// root can enter it.
bool prepare_folder() {
    if (mkdir(kOldHomes.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat facts;
    if (lstat(kOldHomes.c_str(), &facts) != 0) return false;
    if (S_ISDIR(facts.st_mode) && facts.st_uid == geteuid() && (facts.st_mode & 077) == 0) return true;
    errno = EPERM;
    return false;
}

// Renames the home, which may be any kind of file, into a folder of its own, where its new name is free.
// Returns false with errno on failure.
bool move_home(const std::string& home, const char* stored) {
    const std::string pattern = kOldHomes + "/" + stored + ".XXXXXX";
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

// Returns the path of a home that is to be removed, or "".
std::string next_old_home() {
    const std::unique_ptr<DIR, Release<closedir>> folder(opendir(kOldHomes.c_str()));
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        std::string path = kOldHomes + "/" + entry->d_name;
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
    Child program = remove_tree(home);
    if (!program.wait(after(kTimeInPlace))) program.end();
    const ProgramResult& removed = program.result();
    // If the disk was full, there is room for the new name now.
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
                rmdir(kOldHomes.c_str());
                return false;
            }
            removal.emplace(path);
        }
        if (removal->program.wait(end)) {
            conclude_removal();
        } else if (passed(removal->deadline)) {
            removal->program.end();
            conclude_removal();
        }
    } while (!passed(end));
    return true;
}

}  // namespace quill
