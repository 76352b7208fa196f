// Preloaded into the daemon: system calls on the files of its store fail as fault.h says, and so does asking
// the kernel who a client is. Which file a call is for is looked up each time, so none is missed.
#include "tests/torture/fault.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

Fault* fault;
const char* state = "";
bool setting_up;

// The faults are set up with calls that arrive here as well.
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

template <class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Under a name of its own here, since the headers declare the call in their way.
#define VISIBLE __attribute__((visibility("default")))
#define CALL(result, name, parameters, file, arguments)                                 \
    extern "C" VISIBLE result failing_##name parameters __asm__(#name);                 \
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

// What a process leaves behind does not depend on these, so the disk is not waited for.
extern "C" VISIBLE int fsync(int file) { return fails(file) ? -1 : 0; }
extern "C" VISIBLE int fdatasync(int file) { return fails(file) ? -1 : 0; }

extern "C" VISIBLE int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept {
    set_up();
    if (fault != nullptr && fault->nobody_known && level == SOL_SOCKET && option == SO_PEERCRED) {
        errno = EIO;
        return -1;
    }
    return original<decltype(getsockopt)>("getsockopt")(socket, level, option, value, size);
}
