#include "platform/service.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/file.h"

namespace quill {
namespace {

std::string with_errno(const std::string& what) { return what + ": " + strerror(errno); }

// Locks the file until the process ends. Returns false with errno, EWOULDBLOCK if another process holds the
// lock.
bool lock_file(const std::string& path) {
    for (;;) {
        Descriptor file(open_lock_file(path));
        if (!file || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return false;
        // Before it was locked, the file may have been deleted or replaced. Then the next daemon would lock
        // another one.
        struct stat held, named;
        if (fstat(file.get(), &held) != 0) return false;
        if (lstat(path.c_str(), &named) != 0) {
            if (errno != ENOENT) return false;
        } else if (same_file(held, named)) {
            file.release();
            return true;
        }
    }
}

// Creates the directory, or checks that an existing one belongs to the daemon's user alone.
bool claim_runtime_directory(const std::string& folder, std::string& reason) {
    // The umask may have removed the permissions of clients.
    const bool made = mkdir(folder.c_str(), 0755) == 0;
    if (made ? chmod(folder.c_str(), 0755) != 0 : errno != EEXIST) {
        reason = with_errno("runtime directory " + folder + " cannot be created");
        return false;
    }
    struct stat facts;
    if (stat(folder.c_str(), &facts) != 0) {
        reason = with_errno("runtime directory " + folder);
        return false;
    }
    if (facts.st_uid == geteuid() && (facts.st_mode & 022) == 0) return true;
    reason = "runtime directory " + folder +
             " must belong to the daemon's user and be writable for that user only";
    return false;
}

}  // namespace

bool take_runtime_directory(std::string& reason) {
    const std::string shared = shared_runtime_directory(), folder = runtime_directory();
    if (!claim_runtime_directory(shared, reason)) return false;
    if (folder != shared && !claim_runtime_directory(folder, reason)) return false;
    const std::string lock = folder + "/quillsecurityd.lock";
    if (lock_file(lock)) return true;
    reason = errno == EWOULDBLOCK ? "another quillsecurityd of this context is running already; stop it first"
                                  : with_errno("lock " + lock);
    return false;
}

std::string log_safe(std::string_view text) {
    std::string safe(text);
    std::ranges::replace_if(
        safe, [](unsigned char c) { return c < ' ' || c >= 127 || c == '\''; }, '.');
    return safe;
}

void notify_manager(const char* state) {
    const char* path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || (*path != '/' && *path != '@')) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (length >= sizeof address.sun_path) return;
    memcpy(address.sun_path, path, length);
    if (*path == '@') address.sun_path[0] = '\0';  // a name in the abstract namespace, unix(7)
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return;
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    sendto(descriptor, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
    close(descriptor);
}

int log_options() {
    const char* journal = getenv("JOURNAL_STREAM");
    struct stat facts;
    if (journal == nullptr || fstat(STDERR_FILENO, &facts) != 0) return LOG_PID | LOG_PERROR;
    char here[48];
    snprintf(here, sizeof here, "%ju:%ju", uintmax_t{facts.st_dev}, uintmax_t{facts.st_ino});
    return strcmp(here, journal) == 0 ? LOG_PID : LOG_PID | LOG_PERROR;
}

bool Background::enter() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const pid_t child = fork();
    if (child < 0) return false;
    if (child != 0) {
        close(ends[1]);
        // The daemon blocks these signals until it is ready; the waiting parent can be ended before that.
        sigset_t ending;
        sigemptyset(&ending);
        for (const int number : {SIGTERM, SIGINT}) sigaddset(&ending, number);
        sigprocmask(SIG_UNBLOCK, &ending, nullptr);
        char byte;
        ssize_t got;
        do {
            got = read(ends[0], &byte, 1);
        } while (got < 0 && errno == EINTR);
        _exit(got == 1 ? 0 : 1);
    }
    close(ends[0]);
    report_ = ends[1];
    setsid();
    return true;
}

void Background::ready() {
    if (report_ < 0) return;
    // From now on, nothing is written to the terminal that started the daemon.
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int descriptor = 0; descriptor <= 2 && null >= 0; ++descriptor) dup2(null, descriptor);
    if (null > 2) close(null);
    if (write(report_, "", 1) != 1) perror("quillsecurityd");
    close(report_);
    report_ = -1;
}

Background::~Background() {
    if (report_ >= 0) close(report_);
}

}  // namespace quill
