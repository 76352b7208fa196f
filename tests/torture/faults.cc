// Preloaded into the daemon: lets system calls on the files of its store, and queries of a client's
// credentials, fail as fault.h says. The path of a descriptor is looked up for each call, so that no file is
// missed.
#include "tests/torture/fault.h"

#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/interpose.h"

namespace {

Fault* fault;
const char* state = "";
bool setting_up;

// The calls made here are intercepted as well, hence `setting_up`.
void set_up() {
    if (fault != nullptr || setting_up) return;
    setting_up = true;
    const char* path = getenv("QUILL_FAULTS");
    const char* folder = getenv("QUILL_STATE_DIR");
    if (path != nullptr) fault = map_fault(path);
    if (folder != nullptr) state = folder;
    setting_up = false;
}

bool of_store(const char* path) { return *state != '\0' && strncmp(path, state, strlen(state)) == 0; }

bool of_store(int file) {
    char link[40], path[PATH_MAX] = {};
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    return syscall(SYS_readlink, link, path, sizeof path - 1) > 0 && of_store(path);
}

template <class File>
bool fails(File file) {
    const int kept = errno;
    set_up();
    if (fault == nullptr || fault->error == 0) return false;
    const bool ours = of_store(file);
    errno = kept;
    if (!ours || fault->calls++ < fault->after || fault->failed >= fault->times) return false;
    ++fault->failed;
    errno = fault->error;
    return true;
}

}  // namespace

// Each function has a name of its own in C++, since the headers may declare the call with other types.
#define CALL(result, name, parameters, file, arguments)                                 \
    INTERPOSED result failing_##name parameters __asm__(#name);                         \
    result failing_##name parameters {                                                  \
        return fails(file) ? (result)-1 : original<result parameters>(#name) arguments; \
    }

CALL(int, open, (const char* path, int flags, mode_t mode), path, (path, flags, mode))
CALL(int, open64, (const char* path, int flags, mode_t mode), path, (path, flags, mode))
CALL(ssize_t, read, (int file, void* bytes, size_t size), file, (file, bytes, size))
CALL(ssize_t, write, (int file, const void* bytes, size_t size), file, (file, bytes, size))
CALL(ssize_t, pread, (int file, void* bytes, size_t size, off_t at), file, (file, bytes, size, at))
CALL(ssize_t, pread64, (int file, void* bytes, size_t size, off64_t at), file, (file, bytes, size, at))
CALL(ssize_t, pwrite, (int file, const void* bytes, size_t size, off_t at), file, (file, bytes, size, at))
CALL(ssize_t, pwrite64, (int file, const void* bytes, size_t size, off64_t at), file, (file, bytes, size, at))
CALL(int, ftruncate, (int file, off_t size), file, (file, size))
CALL(int, ftruncate64, (int file, off64_t size), file, (file, size))
CALL(int, fcntl, (int file, int command, void* argument), file, (file, command, argument))
CALL(int, fcntl64, (int file, int command, void* argument), file, (file, command, argument))
CALL(int, flock, (int file, int operation), file, (file, operation))
CALL(int, fstat, (int file, void* facts), file, (file, facts))
CALL(int, fstat64, (int file, void* facts), file, (file, facts))
CALL(int, stat, (const char* path, void* facts), path, (path, facts))
CALL(int, stat64, (const char* path, void* facts), path, (path, facts))
CALL(int, lstat, (const char* path, void* facts), path, (path, facts))
CALL(int, lstat64, (const char* path, void* facts), path, (path, facts))
CALL(int, access, (const char* path, int mode), path, (path, mode))
CALL(int, chmod, (const char* path, mode_t mode), path, (path, mode))
CALL(int, fchmod, (int file, mode_t mode), file, (file, mode))
CALL(int, fchown, (int file, uid_t user, gid_t group), file, (file, user, group))
CALL(int, mkdir, (const char* path, mode_t mode), path, (path, mode))
CALL(int, unlink, (const char* path), path, (path))
CALL(int, link, (const char* from, const char* to), from, (from, to))
CALL(int, renameat2, (int from, const char* name, int to, const char* other, unsigned flags), name,
     (from, name, to, other, flags))

// Not passed on: these tests kill processes, not the machine, so the disk need not be waited for.
INTERPOSED int fsync(int file) { return fails(file) ? -1 : 0; }
INTERPOSED int fdatasync(int file) { return fails(file) ? -1 : 0; }

INTERPOSED int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept {
    set_up();
    if (fault != nullptr && fault->hide_peers && level == SOL_SOCKET && option == SO_PEERCRED) {
        errno = EIO;
        return -1;
    }
    return original<decltype(getsockopt)>("getsockopt")(socket, level, option, value, size);
}

INTERPOSED int setsockopt(int socket, int level, int option, const void* value, socklen_t size) noexcept {
    constexpr int kPassRights = 83;
    set_up();
    if (fault != nullptr && fault->old_kernel && level == SOL_SOCKET && option == kPassRights) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return original<decltype(setsockopt)>("setsockopt")(socket, level, option, value, size);
}
