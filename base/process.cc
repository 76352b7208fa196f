#include "base/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

namespace quill {
namespace {

using std::chrono::milliseconds;

constexpr size_t kMostInput = 4096;
constexpr milliseconds kDeathTime{1000};

// For Program::leaves_processes: other processes may keep the output open, and write to it without end.
constexpr int kLook = 10;       // milliseconds from one look whether the program has ended to the next
constexpr int kLastReads = 16;  // reads of the output, at most, after its end

// Children that nobody waits for any more; 0 for a free place. If no place is free, a child stays a zombie
// until this process ends.
std::array<pid_t, 16> unreaped;

void reap_others() {
    for (pid_t& child : unreaped)
        if (child > 0 && waitpid(child, nullptr, WNOHANG) != 0) child = 0;
}

pid_t fork_without_handlers() {
    sigset_t all, before, none;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const pid_t child = fork();
    if (child != 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return child;
    }
    // Ignored signals stay ignored, as SIGINT is in a shell's background jobs.
    for (const int number : {SIGTERM, SIGINT, SIGUSR1})
        if (signal(number, SIG_DFL) == SIG_IGN) signal(number, SIG_IGN);
    for (const int number : {SIGALRM, SIGPIPE, SIGXFSZ, SIGCHLD}) signal(number, SIG_DFL);
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    return child;
}

struct Pipe {
    Descriptor out, in;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        out.reset(ends[0]);
        in.reset(ends[1]);
    }
};

// Returns a descriptor from which the input can be read.
Descriptor open_input(std::string_view input) {
    if (input.empty()) return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
    Pipe pipe;
    if (!pipe.in || input.size() > kMostInput) return Descriptor();
    // All of it fits into the pipe, so nobody has to read yet.
    if (write(pipe.in.get(), input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        return Descriptor();
    return std::move(pipe.out);
}

// Between fork and exec: async-signal-safe calls only.
int execute(const Program& program, char* const* words, int input, int output) {
    umask(022);
    setsid();  // no terminal to ask at, and a process group to kill
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(input, STDIN_FILENO);
    dup2(program.capture == Program::kErrors ? nothing : output, STDOUT_FILENO);
    dup2(program.capture == Program::kOutput ? nothing : output, STDERR_FILENO);
    if (program.held >= 0) fcntl(program.held, F_SETFD, 0);
    char locale[] = "LC_ALL=C";
    char* const environment[] = {const_cast<char*>(program.path), locale, nullptr};
    execve(words[0], words, environment);
    return ProgramResult::kNotStarted;
}

}  // namespace

void die_with_parent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) raise(SIGKILL);
}

void Child::Unreaped::reap_later() {
    if (number <= 0) return;
    if (auto* const place = std::ranges::find(unreaped, 0); place != unreaped.end()) *place = number;
    number = -1;
}

// Returns the end that the child writes to.
Descriptor Child::capture(size_t most_output) {
    Pipe pipe;
    if (pipe.out) fcntl(pipe.out.get(), F_SETFL, O_NONBLOCK);  // the child's end stays as it is
    output_ = std::move(pipe.out);
    most_output_ = most_output;
    return std::move(pipe.in);
}

// Returns true in the child.
bool Child::start() {
    reap_others();
    pid_.number = fork_without_handlers();
    if (pid_.number < 0) output_.reset();
    return pid_.number == 0;
}

Child Child::run(const Program& program) {
    Child child;
    const pid_t parent = getpid();
    const Descriptor input = open_input(program.input);
    const Descriptor output = child.capture(program.most_output);
    child.leaves_processes_ = program.leaves_processes;
    std::vector<char*> words;
    for (const char* word : program.words) words.push_back(const_cast<char*>(word));
    words.push_back(nullptr);
    if (!input || !output) {
        child.output_.reset();
    } else if (child.start()) {
        if (program.dies_with_parent) die_with_parent(parent);
        exit_with([&] { return execute(program, words.data(), input.get(), output.get()); });
    }
    return child;
}

// Returns false if there is nothing to read now.
bool Child::read_output() {
    char chunk[4096];
    const ssize_t got = read(output_.get(), chunk, sizeof chunk);
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) output_.reset();
    if (got <= 0) return false;
    const size_t room = most_output_ - result_.output.size();
    result_.output.append(chunk, std::min(static_cast<size_t>(got), room));
    return true;
}

bool Child::wait(Deadline deadline) {
    while (output_) {
        if (leaves_processes_ && reap(Deadline())) {
            for (int i = 0; i < kLastReads && output_ && read_output(); ++i) continue;
            output_.reset();
            break;
        }
        const int left = milliseconds_left(deadline);
        pollfd ready{output_.get(), POLLIN, 0};
        const int polled = poll(&ready, 1, leaves_processes_ ? std::min(left, kLook) : left);
        if (polled < 0 && errno != EINTR) output_.reset();
        if (polled > 0) read_output();
        if (output_ && passed(deadline)) return false;  // also if it writes without end
    }
    return reap(deadline);
}

bool Child::reap(Deadline deadline) {
    int status = 0;
    for (milliseconds pause{0}; id() > 0; pause = std::min(pause + milliseconds(1), milliseconds(20))) {
        const pid_t reaped = waitpid(id(), &status, deadline == kNever ? 0 : WNOHANG);
        if (reaped == id()) {
            result_.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            pid_.number = -1;
        } else if (reaped < 0 && errno != EINTR) {
            pid_.number = -1;  // SIGCHLD is ignored in this process, so nobody knows how it ended
        } else if (passed(deadline)) {
            return false;
        } else {
            std::this_thread::sleep_for(pause);
        }
    }
    return true;
}

void Child::kill() const {
    if (id() <= 0) return;
    ::kill(-id(), SIGKILL);
    ::kill(id(), SIGKILL);  // it may not lead a group, or not yet
}

void Child::end() {
    if (id() <= 0) return;
    kill();
    output_.reset();
    if (!reap(after(kDeathTime))) {
        result_.code = 128 + SIGKILL;
        pid_.reap_later();
    }
    result_.timed_out = true;
}

ProgramResult run_program(const Program& program, Deadline deadline) {
    Child child = Child::run(program);
    if (!child.wait(deadline)) child.end();
    return child.result();
}

void end_processes_of(uid_t uid) {
    if (uid == 0) return;
    Child child = Child::call([uid] {
        if (setresuid(uid, uid, uid) == 0) ::kill(-1, SIGKILL);
        return 0;
    });
    if (!child.wait(after(kDeathTime))) child.end();  // the user may have stopped it
}

}  // namespace quill
