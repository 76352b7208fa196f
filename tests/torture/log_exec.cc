// Preloaded into the daemon and the client: notes the arguments and the environment of every program that
// they start, which others can read for as long as it runs, in the file that QUILL_EXEC_LOG names.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

// Open from the start: not all who are started may open it.
const int log_file = open(getenv("QUILL_EXEC_LOG"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

void note(char* const* words) {
    for (; words != nullptr && *words != nullptr; ++words)
        if (write(log_file, *words, strlen(*words)) < 0 || write(log_file, "\n", 1) < 0) abort();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int execve(const char* path, char* const* arguments,
                                                             char* const* environment) noexcept {
    note(arguments);
    note(environment);
    return reinterpret_cast<decltype(execve)*>(dlsym(RTLD_NEXT, "execve"))(path, arguments, environment);
}
