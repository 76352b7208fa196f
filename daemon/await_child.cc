#include "daemon/await_child.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"

namespace quill {
namespace {

constexpr std::chrono::milliseconds kLook(50);

// By proc(5): to its parent, waitid(2) does not tell of a process that a debugger holds. The state follows
// the name of the program, which may hold anything.
bool is_held(pid_t process) {
    char path[sizeof "/proc//stat" + 3 * sizeof process];
    snprintf(path, sizeof path, "/proc/%d/stat", process);
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    char line[256];
    const ssize_t length = file ? read(file.get(), line, sizeof line - 1) : -1;
    if (length <= 0) return false;
    line[length] = '\0';
    const char* name_end = strrchr(line, ')');
    return name_end != nullptr && (strncmp(name_end, ") T", 3) == 0 || strncmp(name_end, ") t", 3) == 0);
}

}  // namespace

Awaited await_child(int descriptor, pid_t child, Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) return Awaited::kTimeOut;
        pollfd awaited{descriptor, POLLIN, 0};
        const int ready = poll(&awaited, 1, static_cast<int>(std::min(left, kLook).count()));
        if (ready > 0) return Awaited::kReadable;
        if (ready < 0 && errno != EINTR) return Awaited::kTimeOut;
        if (is_held(child)) return Awaited::kHeld;
    }
}

}  // namespace quill
