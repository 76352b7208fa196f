// Removes lines of accounts that no longer exist: the system's programs only edit lines of existing accounts.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "base/descriptor.h"
#include "base/file.h"
#include "daemon/account_files.h"
#include "daemon/account_locks.h"

namespace quill {
namespace {

// Returns false with errno on failure.
bool replace(const std::string& path, const struct stat& old, std::string_view bytes) {
    NewFile draft(path + "+", 0600, NewFile::kReplace);  // the name that shadow-utils use
    return draft && draft.write(bytes) && fchown(draft.get(), old.st_uid, old.st_gid) == 0 &&
           fchmod(draft.get(), old.st_mode & 07777) == 0 && draft.sync() && draft.rename_to(path);
}

// Returns false with errno on failure.
bool remove_from(const char* path, const char* name) {
    const Descriptor file(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) return errno == ENOENT;
    struct stat facts;
    SecretBytes text, kept;
    if (fstat(file.get(), &facts) != 0 || !read_regular_file(file.get(), kLargestAccountFile, text))
        return false;
    const std::string_view all = view(text);
    std::string_view line;
    size_t from = 0;
    for (size_t at; (at = find_line(all, name, from, line)) != all.npos;) {
        append(kept, all.substr(from, at - from));
        from = std::min(all.size(), at + line.size() + 1);
    }
    if (from == 0) return true;
    append(kept, all.substr(from));
    return replace(path, facts, view(kept));
}

}  // namespace

bool remove_lines(AccountFile file, const char* stored, Deadline deadline) {
    const char* path = path_of(file);
    const PasswordFilesLock all(deadline);
    if (!all.held()) {
        syslog(LOG_ERR, "lines of '%s' stay in %s: the account files are locked", stored, path);
        return false;
    }
    const AccountFileLock one(path);
    if (!one.held()) {
        syslog(LOG_ERR, "lines of '%s' stay in %s: %s.lock is held", stored, path, path);
        return false;
    }
    if (remove_from(path, stored)) return true;
    syslog(LOG_ERR, "lines of '%s' stay in %s: %m", stored, path);
    return false;
}

}  // namespace quill
