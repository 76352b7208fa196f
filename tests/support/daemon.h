// A real quillsecurityd, and clients that speak to its socket byte by byte.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// Started in the foreground, on the folders that the environment names; gone with the object. Whoever runs
// the tests is its administrator.
class Daemon {
 public:
    explicit Daemon(const std::vector<std::string>& arguments = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool ready() const { return ready_; }  // it said READY=1 to its service manager; else it has ended
    pid_t pid() const { return pid_; }
    std::string log() const;
    unsigned kilobytes() const;  // of memory that it holds now
    // Sends the signal and waits; how the daemon ended, as for wait_for(). Once.
    int end(int signal = 15);

 private:
    pid_t pid_ = -1;
    int log_ = -1;
    bool ready_ = false;
};

// Runs quillsecurityd with these arguments until the command returns; how it ended, and what it printed.
int run_daemon_command(const std::vector<std::string>& arguments, std::string& printed);

// Becomes that program.
[[noreturn]] void execute_daemon(const std::vector<std::string>& arguments);

// An AF_UNIX address; a path that begins with '@' is a name in the abstract namespace.
int bound_socket(int type, const std::string& path);

class RawClient {
 public:
    RawClient();  // connected to the daemon's socket, or failing at each call
    ~RawClient();
    RawClient(RawClient&& other) noexcept : socket_(other.socket_) { other.socket_ = -1; }

    bool send(const std::string& frame, int flags = 0);
    std::string receive();  // within 10 seconds; empty where the connection has ended
    std::string ask(const std::string& frame) { return send(frame) ? receive() : ""; }
    pid_t server() const;  // the process that listens

 private:
    int socket_;
};

std::string word(uint32_t number);  // big-endian
std::string request_frame(uint32_t type, uint32_t operation, const std::string& record, uint32_t session = 0,
                          const std::string& user = "");
std::string reply_frame(uint32_t status, const std::string& record);
