// The daemon's end of the request channel: one loop over all clients, one request at a time.
//
// The loop knows frames and peers; what a request means is the business of the function that answers it. A
// client that sends nothing, reads nothing or dies costs the others nothing: the loop never waits for a client,
// not even for files that a client passes (platform/channel/closer.h). It does wait for requests that run other
// programs, such as those about accounts.
//
// Up to 1000 clients are connected at a time, fewer where the limit of open files is low. Of these places 100
// are for administrators, 20 of them for root, and no other uid has more than 100. Whoever finds no place is
// told SECURITY_ERR_BUSY and hung up on. A client that sends nothing within 10 seconds loses its place; after
// its first request it may be silent for as long as it likes.
#pragma once

#include <sys/types.h>

#include <any>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/channel/peer.h"
#include "quillplatform/shell.h"

struct event_base;

namespace quill {

// What the answering function keeps about a connection: empty when the connection is made, gone with it.
using ConnectionState = std::any;

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
        // Logs what it refuses; it never returns SECURITY_ERR_REQUEST_FRAME, which the server logs.
        std::function<Answer(const Peer&, ConnectionState&, Request&)> answer;
        std::function<bool()> settle;  // soon after a change; false to be called again
        std::function<void()> dump;    // on SIGUSR1
        uint32_t context = 1;          // requests of any other one are refused: SECURITY_ERR_CONTEXT
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

    // Serves until SIGTERM or SIGINT, and holds signals back again then.
    bool run();

    // Holds back SIGTERM, SIGINT and SIGUSR1, for the beginning of a process; they arrive after listen().
    static void hold_signals();

 private:
    struct Loop;
    std::unique_ptr<Loop> loop_;
};

}  // namespace quill
