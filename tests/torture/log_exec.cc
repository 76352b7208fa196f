// Preloaded into the daemon and the client: appends the arguments and the environment of every program that
// they start to the file $QUILL_EXEC_LOG. Other users can read these while the program runs.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/interpose.h"

namespace {

// Opened in advance: child processes may have dropped the privileges that it takes.
const int log_file = open(getenv("QUILL_EXEC_LOG"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

void log_words(char* const* words) {
    for (; words != nullptr && *words != nullptr; ++words)
        if (write(log_file, *words, strlen(*words)) < 0 || write(log_file, "\n", 1) < 0) abort();
}

}  // namespace

INTERPOSED int execve(const char* path, char* const* arguments, char* const* environment) noexcept {
    log_words(arguments);
    log_words(environment);
    return original<decltype(execve)>("execve")(path, arguments, environment);
}
