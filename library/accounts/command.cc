// The command runner: runs a shell with an environment of one variable, its output redirected to files, and
// waits for it with a time limit, without using signals or threads.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "quillsecurity.h"

namespace quill {
namespace {

constexpr int kSteps = 6000;
constexpr int kStepMicroseconds = 25000;
constexpr int kReapTries = 1000;
constexpr timespec kReapPause{0, 1000000};
constexpr int kNotStarted = 127;

// ---- In the child process, where only async-signal-safe calls are allowed (signal-safety(7)).

// Redirects a stream to a file. Leaves the stream unchanged if the file cannot be opened.
void redirect(const char* path, int stream) {
    if (path == nullptr) return;
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
    if (descriptor == stream)
        fcntl(descriptor, F_SETFD, 0);  // the number is right already, but the shell must inherit it
    else
        dup2(descriptor, stream);
}

[[noreturn]] void become_shell(const char* command, const char* out_path, const char* err_path) {
    redirect(out_path, STDOUT_FILENO);
    redirect(err_path, STDERR_FILENO);
    char name[] = "sh";
    char option[] = "-c";
    char path[] = "PATH=/tovo/bin:/tovoboot/bin:/bin:/sbin:/usr/bin:/usr/sbin";
    char* const arguments[] = {name, option, const_cast<char*>(command), nullptr};
    char* const environment[] = {path, nullptr};
    execve("/bin/sh", arguments, environment);
    _exit(kNotStarted);
}

// ---- In the calling process.

void sleep_a_step() {
    timeval step{0, kStepMicroseconds};  // select(2) may modify it
    select(0, nullptr, nullptr, nullptr, &step);
}

// Waits a second at most: a child that hangs in the kernel cannot be killed and is left unreaped.
void kill_and_reap(pid_t child) {
    kill(child, SIGKILL);
    for (int i = 0; i < kReapTries && waitpid(child, nullptr, WNOHANG) == 0; ++i)
        nanosleep(&kReapPause, nullptr);
}

}  // namespace
}  // namespace quill

int32_t security_conf_system(const char* command, const char* out_path, const char* err_path) {
    using namespace quill;
    if (command == nullptr) return -1;
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) become_shell(command, out_path, err_path);

    bool reaped = false;
    for (int step = 0; step < kSteps; ++step) {
        int status = 0;
        const pid_t waited = waitpid(child, &status, WNOHANG);
        if (waited < 0) {
            // The child was ended by a signal and reaped by the previous waitpid(2), which counts as success
            // and leaves a process id that may be in use again; or SIGCHLD is ignored.
            if (!reaped) kill(child, SIGKILL);
            return 0;
        }
        reaped = waited == child;
        if (reaped && WIFEXITED(status)) return WEXITSTATUS(status);
        sleep_a_step();
    }
    kill_and_reap(child);
    errno = ETIME;
    return -1;
}
