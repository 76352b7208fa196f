#include "cli/temporary_homes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <random>

#include "base/descriptor.h"
#include "cli/failure.h"

namespace quill::cli {
namespace {

constexpr char kName[] = "home";
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
constexpr int kMostTries = 100;

Failure unsafe(const std::string& reason, std::string remedy) {
    return {Exit::kFailed, "directory '/tmp/home'",
            fmt::format("directory '/tmp/home': {}, and nothing was deleted", reason), std::move(remedy)};
}

Failure failed(int error) { return unsafe(error_text(error), "see that root can write to /tmp"); }

// Returns true if only root can rename or delete root's files in this folder.
bool protects_files_of_root(const struct stat& folder) {
    const bool shared = (folder.st_mode & kOthersWrite) != 0;
    return folder.st_uid == 0 && (!shared || (folder.st_mode & S_ISVTX) != 0);
}

// Returns false if /tmp/home is anything but a folder of root.
bool is_secure(int tmp, bool made) {
    const Descriptor home(openat(tmp, kName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts;
    if (!home || fstat(home.get(), &facts) != 0 || facts.st_uid != 0) return false;
    const bool good = (facts.st_mode & kOthersWrite) == 0 && !made;
    if (!good && fchmod(home.get(), 0755) != 0) throw failed(errno);
    return true;
}

void move_away(int tmp) {
    static std::random_device random;
    const std::string other = fmt::format("{}.{:08x}", kName, random());
    if (renameat2(tmp, kName, tmp, other.c_str(), RENAME_NOREPLACE) == 0)
        syslog(LOG_WARNING, "/tmp/home was not root's own and is /tmp/%s now", other.c_str());
    else if (errno != ENOENT && errno != EEXIST)
        throw failed(errno);
}
}  // namespace

void secure_temporary_homes() {
    const Descriptor tmp(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!tmp && errno == ENOENT) return;
    struct stat facts;
    if (!tmp || fstat(tmp.get(), &facts) != 0) throw failed(errno);
    if (!protects_files_of_root(facts))
        throw unsafe("others can rename what is in /tmp", "make /tmp root's, with mode 1777");
    // Others may create the name again between any two steps, until the folder belongs to root.
    for (int tries = 0; tries < kMostTries; ++tries) {
        const bool made = mkdirat(tmp.get(), kName, 0755) == 0;
        if (!made && errno != EEXIST) throw failed(errno);
        if (is_secure(tmp.get(), made)) return;
        move_away(tmp.get());
    }
    throw unsafe("others keep replacing it", "end the process that does it");
}

}  // namespace quill::cli
