// The removal of lines that nothing but this daemon removes: the system's programs for accounts find their
// lines by way of the account, and these have none any more.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "base/descriptor.h"
#include "base/new_file.h"
#include "daemon/account_files.h"
#include "daemon/account_tools.h"

namespace quill {
namespace {

constexpr std::chrono::milliseconds kPause{50};

// The lock of lckpwdf(3), which waits by means of SIGALRM and so cannot be called here.
class PasswordFilesLock {
 public:
    explicit PasswordFilesLock(Deadline deadline)
        : file_(open(kPasswordFilesLock, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        while (file_ && fcntl(file_.get(), F_SETLK, &whole) != 0) {
            if ((errno != EACCES && errno != EAGAIN) || std::chrono::steady_clock::now() >= deadline) {
                file_.reset();
                return;
            }
            std::this_thread::sleep_for(kPause);
        }
    }

    bool held() const { return static_cast<bool>(file_); }

 private:
    Descriptor file_;
};

// "FILE.lock" with the holder's process number in it, as shadow-utils lock each file beside the lock of all.
class FileLock {
 public:
    explicit FileLock(const std::string& path) : path_(path + ".lock") {
        for (int attempt = 0; attempt < 2 && !held_; ++attempt) {
            Descriptor file(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!file && (errno != EEXIST || !is_stale())) return;
            if (!file) {
                unlink(path_.c_str());
                continue;
            }
            const std::string number = std::to_string(getpid());
            held_ = write(file.get(), number.c_str(), number.size() + 1) ==
                    static_cast<ssize_t>(number.size() + 1);
            if (!held_) unlink(path_.c_str());
        }
    }
    ~FileLock() {
        if (held_) unlink(path_.c_str());
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return held_; }

 private:
    // Whoever holds the lock of all is the only one to look, so nobody is about to write his number.
    bool is_stale() const {
        const Descriptor file(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        char text[16] = "";
        pid_t holder = 0;
        if (!file || read(file.get(), text, sizeof text - 1) < 0) return false;
        std::from_chars(text, text + sizeof text, holder);
        return holder <= 0 || holder == getpid() || (kill(holder, 0) != 0 && errno == ESRCH);
    }

    const std::string path_;
    bool held_ = false;
};

// False, with errno set.
bool replace(const std::string& path, const struct stat& old, const std::string& bytes) {
    const std::string draft = path + "+";  // as shadow-utils name theirs
    const Descriptor file(replace_file(draft.c_str(), 0600));
    const bool done =
        file && write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
        fchown(file.get(), old.st_uid, old.st_gid) == 0 && fchmod(file.get(), old.st_mode & 07777) == 0 &&
        fsync(file.get()) == 0 && rename(draft.c_str(), path.c_str()) == 0;
    const int error = errno;
    if (!done && file) unlink(draft.c_str());
    errno = error;
    return done;
}

bool remove_from(const char* path, const char* name) {
    const Descriptor file(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) return errno == ENOENT;
    struct stat facts;
    FileText text, kept;
    if (fstat(file.get(), &facts) != 0 || !read_whole(file.get(), text)) return false;
    kept.bytes.reserve(text.bytes.size());
    std::string_view line;
    size_t from = 0;
    for (size_t at; (at = find_line(text.bytes, name, from, line)) != text.bytes.npos;) {
        kept.bytes.append(text.bytes, from, at - from);
        from = std::min(text.bytes.size(), at + line.size() + 1);
    }
    if (from == 0) return true;
    kept.bytes.append(text.bytes, from);
    return replace(path, facts, kept.bytes);
}

}  // namespace

bool remove_lines(AccountFile file, const char* stored, Deadline deadline) {
    const char* path = path_of(file);
    const PasswordFilesLock all(deadline);
    if (!all.held()) {
        syslog(LOG_ERR, "lines of '%s' stay in %s: the account files are locked", stored, path);
        return false;
    }
    const FileLock one(path);
    if (!one.held()) {
        syslog(LOG_ERR, "lines of '%s' stay in %s: %s.lock is held", stored, path, path);
        return false;
    }
    if (remove_from(path, stored)) return true;
    syslog(LOG_ERR, "lines of '%s' stay in %s: %m", stored, path);
    return false;
}

}  // namespace quill
