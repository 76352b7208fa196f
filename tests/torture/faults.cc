// Preloaded into the daemon, or linked into a test of the store: system calls on the store's files fail as
// fault.h says. The path of a descriptor is looked up for each call, so that no file is missed.
#include "tests/torture/fault.h"

#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/interpose.h"

Fault* injected_fault;

namespace {

bool setting_up;

// The calls made here are intercepted as well, hence `setting_up`.
Fault* set_up() {
    if (injected_fault != nullptr || setting_up) return injected_fault;
    setting_up = true;
    const char* path = getenv("QUILL_FAULTS");
    if (path != nullptr) injected_fault = map_fault(path);
    setting_up = false;
    return injected_fault;
}

bool of_store(const char* path) {
    const char* state = getenv("QUILL_STATE_DIR");
    return state != nullptr && strncmp(path, state, strlen(state)) == 0;
}

bool of_store(int file) {
    char link[40], path[PATH_MAX] = {};
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    return syscall(SYS_readlink, link, path, sizeof path - 1) > 0 && of_store(path);
}

template <class File>
bool fails(File file, Fault::Kind kind = Fault::kOther) {
    const int saved_errno = errno;
    Fault* fault = set_up();
    if (fault == nullptr || fault->error == 0 || (kind & fault->kinds) == 0) return false;
    const bool ours = of_store(file);
    errno = saved_errno;
    if (!ours || fault->calls++ < fault->after || fault->failed >= fault->times) return false;
    ++fault->failed;
    errno = fault->error;
    if (fault->error == Fault::kKill) raise(SIGKILL);
    return true;
}

// Not passed on: these tests kill processes, not the machine, so the disk need not be waited for.
int flush(int file) {
    if (fails(file, Fault::kFlush)) return -1;
    if (injected_fault != nullptr) {
        ++injected_fault->flushes;
        injected_fault->unflushed = false;
    }
    return 0;
}

bool fails_to_change(int file) {
    if (fails(file, Fault::kWrite)) return true;
    if (injected_fault != nullptr) injected_fault->unflushed = true;
    return false;
}

}  // namespace

// Each has a name of its own in C++, since the headers may declare the call with other types. BOTH also
// defines the variant with the suffix 64.
#define CALL(result, name, parameters, file, arguments) \
    FALLIBLE(result, name, parameters, fails(file), arguments)
#define FALLIBLE(result, name, parameters, failure, arguments)                        \
    INTERPOSED result failing_##name parameters __asm__(#name);                       \
    result failing_##name parameters {                                                \
        return (failure) ? (result)-1 : original<result parameters>(#name) arguments; \
    }
#define BOTH(result, name, ...) CALL(result, name, __VA_ARGS__) CALL(result, name##64, __VA_ARGS__)

BOTH(int, open, (const char* path, int flags, mode_t mode), path, (path, flags, mode))
FALLIBLE(ssize_t, read, (int file, void* bytes, size_t size), fails(file, Fault::kRead), (file, bytes, size))
CALL(ssize_t, write, (int file, const void* bytes, size_t size), file, (file, bytes, size))
FALLIBLE(ssize_t, pread, (int file, void* bytes, size_t size, off_t at), fails(file, Fault::kRead),
         (file, bytes, size, at))
FALLIBLE(ssize_t, pread64, (int file, void* bytes, size_t size, off64_t at), fails(file, Fault::kRead),
         (file, bytes, size, at))
FALLIBLE(ssize_t, pwrite, (int file, const void* bytes, size_t size, off_t at), fails_to_change(file),
         (file, bytes, size, at))
FALLIBLE(ssize_t, pwrite64, (int file, const void* bytes, size_t size, off64_t at), fails_to_change(file),
         (file, bytes, size, at))
FALLIBLE(int, ftruncate, (int file, off_t size), fails_to_change(file), (file, size))
FALLIBLE(int, ftruncate64, (int file, off64_t size), fails_to_change(file), (file, size))
BOTH(int, fcntl, (int file, int command, void* argument), file, (file, command, argument))
CALL(int, flock, (int file, int operation), file, (file, operation))
BOTH(int, fstat, (int file, void* facts), file, (file, facts))
BOTH(int, stat, (const char* path, void* facts), path, (path, facts))
BOTH(int, lstat, (const char* path, void* facts), path, (path, facts))
CALL(int, access, (const char* path, int mode), path, (path, mode))
CALL(int, chmod, (const char* path, mode_t mode), path, (path, mode))
CALL(int, fchmod, (int file, mode_t mode), file, (file, mode))
CALL(int, fchown, (int file, uid_t user, gid_t group), file, (file, user, group))
CALL(int, mkdir, (const char* path, mode_t mode), path, (path, mode))
CALL(int, unlink, (const char* path), path, (path))
CALL(int, link, (const char* from, const char* to), from, (from, to))
CALL(int, renameat2, (int from, const char* name, int to, const char* other, unsigned flags), name,
     (from, name, to, other, flags))

INTERPOSED int fsync(int file) { return flush(file); }
INTERPOSED int fdatasync(int file) { return flush(file); }

INTERPOSED int setsockopt(int socket, int level, int option, const void* value, socklen_t size) noexcept {
    constexpr int kPassRights = 83;
    const Fault* fault = set_up();
    if (fault != nullptr && fault->old_kernel && level == SOL_SOCKET && option == kPassRights) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return original<decltype(setsockopt)>("setsockopt")(socket, level, option, value, size);
}
