#include "platform/service.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/channel/frame.h"

namespace quill {
namespace {

std::string because(const std::string& what) { return what + ": " + strerror(errno); }

}  // namespace

bool take_runtime_directory(std::string& reason) {
    const std::string folder = runtime_directory();
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        reason = because("runtime directory " + folder + " cannot be made");
        return false;
    }
    struct stat facts;
    if (stat(folder.c_str(), &facts) != 0) {
        reason = because("runtime directory " + folder);
        return false;
    }
    if (facts.st_uid != geteuid() || (facts.st_mode & 022) != 0) {
        reason =
            "runtime directory " + folder + " must belong to the daemon's user and be writable for it alone";
        return false;
    }
    const std::string lock = folder + "/quillsecurityd.lock";
    const int descriptor = open(lock.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        reason = because("lock " + lock);
        return false;
    }
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return true;  // held by the descriptor, so until the end
    reason = errno == EWOULDBLOCK ? "another quillsecurityd is running already; stop it first"
                                  : because("lock " + lock);
    close(descriptor);
    return false;
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

bool Background::enter() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const pid_t child = fork();
    if (child < 0) return false;
    if (child != 0) {
        close(ends[1]);
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
    // Nothing more is said on the terminal that started the daemon.
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
