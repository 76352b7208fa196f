// A supervisor stands between the daemon and a hook: a process that waits for its turn, runs the hook, bounds
// its time and reports how it ended, so that the daemon's loop waits for nothing but the fork of the
// supervisor.
//
// A pipe connects the two while the supervisor waits: its end there is closed when the turn has come, which
// tells the daemon that the next start needs a supervisor of its own, and the daemon's end is closed with the
// daemon, which tells the supervisor to give up.
#include "platform/hook.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>

#include "base/descriptor.h"
#include "platform/service.h"

namespace quill {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kOwnHooks[] = "/etc/quillsecurity/hooks/";
constexpr char kHooksFromProgram[] = "/" QUILL_HOOKS_FROM_PROGRAM "/";
constexpr size_t kLongestReport = 500;
constexpr int kNotStarted = 127;
constexpr useconds_t kStepMicroseconds = 10000;
constexpr int kReadsAStep = 16;
constexpr int kTurnMilliseconds = 20;

std::string program_folder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) == sizeof path) return "";
    const std::string program(path, static_cast<size_t>(length));
    return program.substr(0, program.rfind('/'));
}

[[noreturn]] void become_hook(const std::string& path, const std::string& argument, int output) {
    setpgid(0, 0);
    fcntl(output, F_SETFL, 0);  // a description of its own: the other end stays as it is
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    char environment_path[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char* const arguments[] = {const_cast<char*>(path.c_str()), const_cast<char*>(argument.c_str()), nullptr};
    char* const environment[] = {environment_path, locale, nullptr};
    execve(path.c_str(), arguments, environment);
    _exit(kNotStarted);
}

// Reads a bounded amount at a time, because a hook may write without end. What exceeds a line of the log is
// dropped.
void take_output(int output, std::string& report) {
    char bytes[4096];
    ssize_t count;
    for (int i = 0; i < kReadsAStep && (count = read(output, bytes, sizeof bytes)) > 0; ++i)
        report.append(bytes, std::min(static_cast<size_t>(count), kLongestReport - report.size()));
}

// False when the time was up first. The hook is not reaped, so its number stays its own.
bool ends_in_time(pid_t hook, int output, Clock::time_point end, std::string& report) {
    for (;;) {
        siginfo_t info{};
        const bool ended = waitid(P_PID, static_cast<id_t>(hook), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                           info.si_pid == hook;
        take_output(output, report);
        if (ended || Clock::now() >= end) return ended;
        usleep(kStepMicroseconds);
    }
}

void run_hook(const std::string& path, const std::string& argument, std::chrono::seconds limit) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return syslog(LOG_ERR, "hook %s cannot be run: %m", path.c_str());
    const auto end = Clock::now() + limit;
    const pid_t hook = fork();
    if (hook == 0) become_hook(path, argument, ends[1]);
    if (hook < 0) return syslog(LOG_ERR, "hook %s cannot be run: %m", path.c_str());
    setpgid(hook, hook);  // whichever of the two comes first
    close(ends[1]);
    std::string report;
    const bool in_time = ends_in_time(hook, ends[0], end, report);
    if (!in_time) kill(-hook, SIGKILL);  // with all that it started
    int status = 0;
    waitpid(hook, &status, 0);
    for (char& c : report)
        if (c < ' ' || c > '~') c = ' ';  // one line of the log, and nothing that speaks to a terminal
    report.erase(report.find_last_not_of(' ') + 1);
    const char* outcome = status == 0 ? "done" : in_time ? "failed" : "took too long";
    syslog(status == 0 ? LOG_INFO : LOG_ERR, "hook %s: %s%s%s", path.c_str(), outcome,
           report.empty() ? "" : "; ", report.c_str());
}

// Waits until no other hook runs. False when the daemon has ended before; `waiting` is the pipe to it.
bool take_turn(int waiting) {
    const std::string turn = runtime_directory() + "/hooks.lock";
    const int lock = open(turn.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    while (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
        if (lock < 0 || (errno != EWOULDBLOCK && errno != EINTR)) {
            syslog(LOG_WARNING, "hook lock %s: %m", turn.c_str());
            return true;
        }
        pollfd daemon{waiting, 0, 0};
        if (poll(&daemon, 1, kTurnMilliseconds) > 0) return false;
    }
    return true;  // the lock is held as long as this process lives
}

// Ends with 0, or with the errno for which there is no supervisor.
[[noreturn]] void supervise(const std::string& path, const std::string& argument, std::chrono::seconds limit,
                            int waiting) noexcept {
    setsid();
    closelog();  // its descriptor goes with the others
    // The daemon waits for this, so that it is the last to hold its clients' connections (channel/closer.h).
    if (dup3(waiting, STDERR_FILENO + 1, O_CLOEXEC) < 0 && waiting != STDERR_FILENO + 1) _exit(errno);
    close_range(STDERR_FILENO + 2, ~0u, 0);
    const pid_t supervisor = fork();  // an orphan, which the daemon need not wait for
    if (supervisor != 0) _exit(supervisor < 0 ? errno : 0);
    prctl(PR_SET_NAME, "quill-hook");
    umask(022);
    openlog("quillsecurityd", log_options(), LOG_DAEMON);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO})
        if (null >= 0) dup2(null, standard);
    if (!take_turn(STDERR_FILENO + 1)) _exit(0);
    close(STDERR_FILENO + 1);
    run_hook(path, argument, limit);
    closelog();
    _exit(0);
}

// The daemon's ends of the pipes to supervisors, by the names of the hooks' programs.
std::map<std::string, Descriptor> supervisors;

// Whether the supervisor at the other end still waits.
bool waits(const Descriptor& supervisor) {
    pollfd ended{supervisor.get(), 0, 0};
    return supervisor && poll(&ended, 1, 0) == 0;
}

}  // namespace

std::string find_hook(const std::string& name) {
    for (const std::string& path : {kOwnHooks + name, program_folder() + kHooksFromProgram + name})
        if (access(path.c_str(), X_OK) == 0) return path;
    return "";
}

bool start_hook(const std::string& path, const std::string& argument, std::chrono::seconds limit) {
    Descriptor& supervisor = supervisors[path];
    if (waits(supervisor)) return true;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    supervisor.reset(ends[0]);
    Descriptor waiting(ends[1]);
    const pid_t child = fork_without_handlers();
    if (child == 0) supervise(path, argument, limit, waiting.get());
    if (child < 0) return false;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) errno = WEXITSTATUS(status);
    return status == 0;
}

bool write_file(const std::string& path, const std::string& bytes, unsigned mode) {
    const std::string draft = path + ".new";
    unlink(draft.c_str());
    const int descriptor = open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (descriptor < 0) return false;
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        written += static_cast<size_t>(count);
    }
    const bool whole = written == bytes.size();
    if (close(descriptor) == 0 && whole && rename(draft.c_str(), path.c_str()) == 0) return true;
    const int kept = errno;
    unlink(draft.c_str());
    errno = kept;
    return false;
}

}  // namespace quill
