#include "daemon/tool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <vector>

#include "platform/service.h"

namespace quill {
namespace {

constexpr std::chrono::seconds kLimit{50};  // clients wait for 60
constexpr size_t kMostInput = 4096;
constexpr size_t kMostErrors = 4095;
constexpr int kNotStarted = 127;

// Both ends of a pipe, closed with it.
struct Pipe {
    int ends[2] = {-1, -1};

    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) ends[0] = ends[1] = -1;
    }
    ~Pipe() {
        close_end(0);
        close_end(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    bool made() const { return ends[0] >= 0; }
    void close_end(int which) {
        if (ends[which] >= 0) close(ends[which]);
        ends[which] = -1;
    }
};

// Between fork and exec: what is safe after a signal, and nothing else.
[[noreturn]] void become_tool(char* const* words, int input, int errors, int held) {
    umask(022);
    setsid();  // no terminal to ask at, and a group to kill
    const int nothing = open("/dev/null", O_RDWR);
    dup2(input, STDIN_FILENO);
    dup2(nothing, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    if (held >= 0) fcntl(held, F_SETFD, 0);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char* const environment[] = {path, locale, nullptr};
    execve(words[0], words, environment);
    _exit(kNotStarted);
}

// Until all who hold the other end have ended; those who have not when the time is up are killed.
std::string read_errors(int descriptor, pid_t session) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + kLimit;
    std::string errors;
    char chunk[512];
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ready{descriptor, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) == 0) {
            kill(-session, SIGKILL);
            return errors;
        }
        const ssize_t got = ready.revents != 0 ? read(descriptor, chunk, sizeof chunk) : -1;
        if (got < 0 && (errno == EINTR || ready.revents == 0)) continue;
        if (got <= 0) return errors;
        errors.append(chunk, std::min(static_cast<size_t>(got), kMostErrors - errors.size()));
    }
}

}  // namespace

ToolResult run_tool(std::initializer_list<const char*> words, std::string_view input, int held) {
    Pipe in, errors;
    if (!in.made() || !errors.made() || input.size() > kMostInput) return {kNotStarted, ""};
    // All of it fits into the pipe, so nobody has to read yet.
    if (write(in.ends[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        return {kNotStarted, ""};
    std::vector<char*> arguments;
    for (const char* word : words) arguments.push_back(const_cast<char*>(word));
    arguments.push_back(nullptr);

    const pid_t child = fork_without_handlers();
    if (child < 0) return {kNotStarted, ""};
    if (child == 0) become_tool(arguments.data(), in.ends[0], errors.ends[1], held);
    in.close_end(0);
    in.close_end(1);
    errors.close_end(1);
    ToolResult result{0, read_errors(errors.ends[0], child)};
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace quill
