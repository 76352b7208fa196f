// A hook is run by a supervisor: a process that waits for its turn, runs the hook, limits its time and logs
// how it ended, so that the daemon's event loop only waits for the supervisor to be forked.
//
// While the supervisor waits, a pipe connects it with the daemon. The supervisor closes its end when its turn
// has come, so the daemon knows that the next start needs another supervisor. The daemon's end is closed when
// the daemon ends, so the supervisor knows that it must give up.
#include "platform/hook.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/process.h"
#include "platform/service.h"

namespace quill {
namespace {

constexpr char kOwnHooks[] = "/etc/quillsecurity/hooks/";
constexpr char kHooksFromProgram[] = "/" QUILL_HOOKS_FROM_PROGRAM "/";
constexpr size_t kLongestReport = 500;
constexpr int kTurnMilliseconds = 20;
constexpr std::chrono::seconds kForkTime(5);  // for the daemon to wait for the supervisor to be forked

std::string program_folder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) == sizeof path) return "";
    const std::string program(path, static_cast<size_t>(length));
    return program.substr(0, program.rfind('/'));
}

void run_hook(const std::string& path, const std::string& argument, std::chrono::seconds limit) {
    Child hook = Child::run({.words = {path.c_str(), argument.c_str()},
                             .path = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                             .capture = Program::kBoth,
                             .most_output = kLongestReport,
                             .leaves_processes = true});
    if (hook.id() <= 0) return syslog(LOG_ERR, "hook %s cannot be run: %m", path.c_str());
    if (!hook.wait(after(limit))) hook.end();
    const ProgramResult& result = hook.result();
    std::string report = result.output;
    for (char& c : report)
        if (c < ' ' || c > '~') c = ' ';  // one line, without control characters for a terminal
    report.erase(report.find_last_not_of(' ') + 1);
    const char* outcome = result.ok() ? "done" : result.timed_out ? "took too long" : "failed";
    syslog(result.ok() ? LOG_INFO : LOG_ERR, "hook %s: %s%s%s", path.c_str(), outcome,
           report.empty() ? "" : "; ", report.c_str());
}

// Waits until no other hook runs. Returns false if the daemon ends before; `waiting` is the pipe to it.
bool take_turn(int waiting) {
    const std::string turn = runtime_directory() + "/hooks.lock";
    const int lock = open_lock_file(turn);
    while (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
        if (lock < 0 || (errno != EWOULDBLOCK && errno != EINTR)) {
            syslog(LOG_WARNING, "hook lock %s: %m", turn.c_str());
            return true;
        }
        pollfd daemon{waiting, 0, 0};
        if (poll(&daemon, 1, kTurnMilliseconds) > 0) return false;
    }
    return true;  // the lock is held until this process ends
}

// Exits with 0, or with the errno of a failure to start the supervisor.
[[noreturn]] void supervise(const std::string& path, const std::string& argument, std::chrono::seconds limit,
                            int waiting) noexcept {
    setsid();
    closelog();  // before its descriptor is closed below
    // The daemon waits for this process: no copy of its clients' connections may outlive it
    // (channel/closer.h).
    if (dup3(waiting, STDERR_FILENO + 1, O_CLOEXEC) < 0 && waiting != STDERR_FILENO + 1) _exit(errno);
    close_range(STDERR_FILENO + 2, ~0u, 0);
    const pid_t supervisor = fork();  // becomes an orphan, so the daemon need not reap it
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

// The daemon's ends of the pipes to supervisors, by the path of the hook.
std::map<std::string, Descriptor> supervisors;

// Whether the supervisor at the other end is still waiting.
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
    Child child = Child::call([&]() -> int { supervise(path, argument, limit, waiting.get()); });
    if (child.id() <= 0) return false;
    if (!child.wait(after(kForkTime))) child.end();
    if (child.result().decided()) errno = child.result().code;
    return child.result().ok();
}

bool write_file(const std::string& path, std::string_view bytes, unsigned mode) {
    NewFile draft(path + ".new", mode, NewFile::kReplace);
    return draft && draft.write(bytes) && draft.rename_to(path);
}

}  // namespace quill
