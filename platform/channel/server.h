// The daemon's end of the request channel: one loop over all clients, one request at a time.
//
// The loop knows frames and peers; what a request means is the business of the function that answers it. A
// client that sends nothing, reads nothing or dies costs the others nothing: no call of the loop waits.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "quillplatform/shell.h"

struct event_base;

namespace quill {

// Who is at the other end, by the kernel's word when the connection was made (unix(7), SO_PEERCRED).
struct Peer {
    bool known = false;          // false: the kernel would not say; nothing is permitted
    bool administrator = false;  // root, or a member of the administrators' group
    uid_t uid = 0;
    pid_t pid = 0;
};

// Of a connected socket; `administrators` is a group, 0 for none.
Peer identify(int socket, gid_t administrators);

struct Request {
    uint32_t type;
    uint32_t operation;
    uint32_t session;
    const char* user_name;  // whom the client says it acts for; terminated, and nobody's proof
    unsigned char* record;  // room for SECURITY_CMI_MAX_RECORD bytes; what stands here is the reply's record
    uint32_t length;
};

struct Answer {
    uint32_t status;
    uint32_t length;  // bytes of the record that go back
    bool changed;     // the store may have changed
};

class Server {
 public:
    struct Settings {
        gid_t administrators = 0;  // group; 0 for root alone
        std::function<Answer(const Peer&, Request&)> answer;
        std::function<bool()> settle;  // soon after a change; false to be called again
        std::function<void()> dump;    // on SIGUSR1
    };

    explicit Server(Settings settings);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Takes over the socket's name, which a daemon that crashed may have left. The caller holds the runtime
    // folder's lock. False with errno set.
    bool listen();

    // What else is to be served beside the clients joins this loop.
    event_base* loop() const;

    // Serves until SIGTERM or SIGINT.
    void run();

 private:
    struct Loop;
    std::unique_ptr<Loop> loop_;
};

}  // namespace quill
