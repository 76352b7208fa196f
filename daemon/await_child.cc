#include "daemon/await_child.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"

namespace quill {
namespace {

constexpr std::chrono::milliseconds kLook(50);

// Reads the state from proc(5): waitid(2) does not report to the parent that a debugger stopped the process.
// The state follows the name of the program, which may contain any character.
bool is_stopped(pid_t process) {
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

Awaited await_child(Child& child, Deadline deadline) {
    while (!child.wait(std::min(deadline, after(kLook)))) {
        if (passed(deadline)) return Awaited::kTimedOut;
        if (is_stopped(child.id())) return Awaited::kStopped;
    }
    return Awaited::kEnded;
}

}  // namespace quill
