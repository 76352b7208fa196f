#include "tests/support/daemon.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "quillsecurity/records.h"
#include "tests/support/box.h"
#include "tests/support/process.h"

namespace {

constexpr int kTimeout = 10000;  // milliseconds

socklen_t make_address(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
}

// An anonymous file for the output of a child.
int new_log() { return memfd_create("log", MFD_CLOEXEC); }

std::string contents(int log) {
    std::string text(static_cast<size_t>(lseek(log, 0, SEEK_END)), '\0');
    const ssize_t got = pread(log, text.data(), text.size(), 0);
    return text.substr(0, got < 0 ? 0 : static_cast<size_t>(got));
}

bool wait_until_ready(int notices, pid_t daemon) {
    const auto ended = static_cast<int>(syscall(SYS_pidfd_open, daemon, 0));
    pollfd events[] = {{notices, POLLIN, 0}, {ended, POLLIN, 0}};
    poll(events, 2, kTimeout);
    close(ended);
    char notice[64] = {};
    return (events[0].revents & POLLIN) != 0 && recv(notices, notice, sizeof notice - 1, 0) > 0 &&
           strcmp(notice, "READY=1") == 0;
}

}  // namespace

void execute_daemon(const std::vector<std::string>& arguments) {
    std::vector<char*> words{const_cast<char*>("quillsecurityd")};
    for (const auto& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    execv(QUILLSECURITYD, words.data());
    _exit(127);
}

int bound_socket(int type, const std::string& path) {
    sockaddr_un address;
    const socklen_t size = make_address(path, address);
    const int made = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (bind(made, reinterpret_cast<sockaddr*>(&address), size) != 0)
        ADD_FAILURE() << path << ": " << strerror(errno);
    return made;
}

Daemon::Daemon(const std::vector<std::string>& arguments, int standard_error) : log_(new_log()) {
    static int count = 0;
    const std::string manager = "@quill-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
    const int notices = bound_socket(SOCK_DGRAM, manager);
    pid_ = start_child([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("NOTIFY_SOCKET", manager.c_str(), 1);
        dup2(standard_error < 0 ? log_ : standard_error, STDERR_FILENO);
        std::vector<std::string> all{"--foreground"};
        if (geteuid() != 0) all.insert(all.end(), {"--admin-group", getgrgid(getegid())->gr_name});
        all.insert(all.end(), arguments.begin(), arguments.end());
        execute_daemon(all);
    });
    ready_ = wait_until_ready(notices, pid_);
    close(notices);
}

Daemon::~Daemon() {
    end(SIGKILL);
    close(log_);
}

std::string Daemon::log() const { return contents(log_); }

unsigned Daemon::kilobytes() const {
    const std::string status = read_file("/proc/" + std::to_string(pid_) + "/status");
    return static_cast<unsigned>(std::stoul(status.substr(status.find("VmRSS:") + 6)));
}

int Daemon::end(int signal) {
    if (pid_ < 0) return -1;
    kill(pid_, signal);
    const int status = wait_for(pid_);
    pid_ = -1;
    return status;
}

int run_daemon_command(const std::vector<std::string>& arguments, std::string& printed) {
    const int log = new_log();
    const int status = in_child([&] {
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execute_daemon(arguments);
    });
    printed = contents(log);
    close(log);
    return status;
}

int connect_to(const std::string& name) {
    const int made = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    const socklen_t size = make_address(getenv("QUILL_RUNTIME_DIR") + ("/" + name), address);
    const timeval timeout{kTimeout / 1000, 0};
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connect(made, reinterpret_cast<sockaddr*>(&address), size) == 0) return made;
    close(made);
    return -1;
}

RawClient::~RawClient() {
    if (socket_ >= 0) close(socket_);
}

bool RawClient::send(const std::string& frame, int flags) {
    return ::send(socket_, frame.data(), frame.size(), flags | MSG_NOSIGNAL) >= 0;
}

pid_t RawClient::server() const {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    return getsockopt(socket_, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 ? credentials.pid : -1;
}

std::string receive_message(int socket) {
    std::string message(65536, '\0');
    const ssize_t got = recv(socket, message.data(), message.size(), 0);
    message.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return message;
}

std::string word(uint32_t number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift & 0xff);
    return bytes;
}

std::string request_frame(uint32_t type, uint32_t operation, const std::string& record, uint32_t session,
                          const std::string& user, uint32_t context) {
    std::string name = user;
    name.resize(128);
    return "QSEC" + word(2) + word(type) + word(operation) + word(session) + word(context) +
           word(static_cast<uint32_t>(record.size())) + name + record;
}

std::string reply_frame(uint32_t status, const std::string& record) {
    return "QSEC" + word(2) + word(status) + word(static_cast<uint32_t>(record.size())) + record;
}

std::string service_frame(uint32_t operation, uint32_t code, uint32_t value) {
    return request_frame(SECURITY_ENABLE_INFO_REQUEST, operation, word(code) + word(value));
}
