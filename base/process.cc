#include "base/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include "base/descriptor.h"

namespace quill {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kMostInput = 4096;
constexpr size_t kMostErrors = 4095;
constexpr milliseconds kDeathTime{1000};

struct Pipe {
    Descriptor out, in;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        out.reset(ends[0]);
        in.reset(ends[1]);
    }
};

// Between fork and exec: async-signal-safe calls only.
[[noreturn]] void execute(char* const* words, int input, int errors, int held) {
    umask(022);
    setsid();  // no terminal to ask at, and a process group to kill
    const int nothing = open("/dev/null", O_RDWR);
    dup2(input, STDIN_FILENO);
    dup2(nothing, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    if (held >= 0) fcntl(held, F_SETFD, 0);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char* const environment[] = {path, locale, nullptr};
    execve(words[0], words, environment);
    _exit(ProgramResult::kNotStarted);
}

}  // namespace

pid_t fork_without_handlers() {
    sigset_t all, before, none;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const pid_t child = fork();
    if (child != 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return child;
    }
    for (const int number : {SIGTERM, SIGINT, SIGUSR1, SIGALRM, SIGPIPE, SIGXFSZ, SIGCHLD})
        signal(number, SIG_DFL);
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    return child;
}

RunningProgram::RunningProgram(const Program& program) {
    Pipe input, errors;
    if (!input.in || !errors.in || program.input.size() > kMostInput) return;
    // All of it fits into the pipe, so nobody has to read yet.
    if (write(input.in.get(), program.input.data(), program.input.size()) !=
        static_cast<ssize_t>(program.input.size()))
        return;
    std::vector<char*> words;
    for (const char* word : program.words) words.push_back(const_cast<char*>(word));
    words.push_back(nullptr);

    child_ = fork_without_handlers();
    if (child_ == 0) execute(words.data(), input.out.get(), errors.in.get(), program.held);
    if (child_ > 0) errors_ = std::move(errors.out);
}

bool RunningProgram::wait(Deadline deadline) {
    char chunk[512];
    while (errors_) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        pollfd ready{errors_.get(), POLLIN, 0};
        const int polled = poll(&ready, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, INT32_MAX)));
        if (polled == 0) return false;
        if (polled < 0 && errno == EINTR) continue;
        if (polled < 0) errors_.reset();
        if (!errors_) break;
        const ssize_t got = read(errors_.get(), chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) errors_.reset();
        const size_t room = kMostErrors - result_.errors.size();
        if (got > 0) result_.errors.append(chunk, std::min(static_cast<size_t>(got), room));
        if (errors_ && Clock::now() >= deadline) return false;  // it may write without end
    }
    return reap(deadline);
}

bool RunningProgram::reap(Deadline deadline) {
    int status = 0;
    for (milliseconds pause{0}; child_ > 0; pause = std::min(pause + milliseconds(1), milliseconds(20))) {
        const pid_t reaped = waitpid(child_, &status, WNOHANG);
        if (reaped == child_) {
            result_.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            child_ = -1;
        } else if (reaped < 0 && errno != EINTR) {
            child_ = -1;
        } else if (Clock::now() >= deadline) {
            return false;
        } else {
            std::this_thread::sleep_for(pause);
        }
    }
    return true;
}

void RunningProgram::kill() {
    if (child_ <= 0) return;
    ::kill(-child_, SIGKILL);
    ::kill(child_, SIGKILL);  // should it not have come to lead its session yet
    errors_.reset();
    if (!reap(after(kDeathTime))) result_.code = 128 + SIGKILL;
    result_.timed_out = true;
}

void end_processes_of(uid_t uid) {
    if (uid == 0) return;
    const pid_t child = fork_without_handlers();
    if (child == 0) {
        if (setresuid(uid, uid, uid) == 0) ::kill(-1, SIGKILL);
        _exit(0);
    }
    while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) continue;
}

ProgramResult run_program(const Program& program, Deadline deadline) {
    RunningProgram running(program);
    if (!running.wait(deadline)) running.kill();
    return running.result();
}

}  // namespace quill
