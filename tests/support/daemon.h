// A real quillsecurityd, and clients that send and receive raw frames.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// Runs quillsecurityd in the foreground, with the folders that the environment names, and kills it in the
// destructor. The user who runs the tests is an administrator. Its standard error is collected, unless a
// descriptor is given for it.
class Daemon {
 public:
    explicit Daemon(const std::vector<std::string>& arguments = {}, int standard_error = -1);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool ready() const { return ready_; }  // it has sent READY=1 to its service manager; else it has exited
    pid_t pid() const { return pid_; }
    std::string log() const;
    unsigned kilobytes() const;  // of resident memory
    // Sends the signal and waits; returns the result of wait_for(). To be called once.
    int end(int signal = 15);

 private:
    pid_t pid_ = -1;
    int log_ = -1;
    bool ready_ = false;
};

// Runs quillsecurityd with these arguments and waits for it. Returns the result of wait_for() and its output.
int run_daemon_command(const std::vector<std::string>& arguments, std::string& printed);

// Replaces this process by quillsecurityd.
[[noreturn]] void execute_daemon(const std::vector<std::string>& arguments);

// Returns a new AF_UNIX socket bound to the path, or to an abstract address if the path begins with '@'.
int bound_socket(int type, const std::string& path);

// Returns a new connection to the daemon's socket of this name in $QUILL_RUNTIME_DIR, or -1. Receiving fails
// after 10 seconds.
int connect_to(const std::string& name = "quillsecurityd.sock");

// Receives one message; returns an empty text at the end of the connection or on failure.
std::string receive_message(int socket);

class RawClient {
 public:
    RawClient() : socket_(connect_to()) {}  // if that fails, so does each call
    ~RawClient();
    RawClient(RawClient&& other) noexcept : socket_(other.socket_) { other.socket_ = -1; }

    bool send(const std::string& frame, int flags = 0);
    std::string receive() { return receive_message(socket_); }
    std::string ask(const std::string& frame) { return send(frame) ? receive() : ""; }
    pid_t server() const;  // the process that listens

 private:
    int socket_;
};

std::string word(uint32_t number);  // its four bytes, big-endian
std::string request_frame(uint32_t type, uint32_t operation, const std::string& record, uint32_t session = 0,
                          const std::string& user = "", uint32_t context = 1);
std::string reply_frame(uint32_t status, const std::string& record);
// A request for the setting of a service (SECURITY_ENABLE_INFO_REQUEST).
std::string service_frame(uint32_t operation, uint32_t code, uint32_t value);
