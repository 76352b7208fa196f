// The daemon's end of the request channel: one event loop over all clients, one request at a time.
//
// The loop checks frames and identifies peers; the requests are handled by a function of the daemon. The loop
// never waits for a client, not even for files that a client passes (platform/channel/closer.h). It does wait
// for requests that run other programs, such as those about accounts.
//
// Up to 1000 clients can be connected at a time, fewer if the limit of open files is low. Of these
// connections 100 are reserved for administrators, 20 of them for root, and no other uid has more than 100. A
// client beyond that gets SECURITY_ERR_BUSY and is disconnected. So is a client that sends nothing within 10
// seconds; after its first request it may be silent for any time.
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

// What the request handler keeps about a connection: empty for a new connection, destroyed with it.
using ConnectionState = std::any;

struct Request {
    uint32_t type;
    uint32_t operation;
    uint32_t session;
    const char* user_name;  // the user for whom the client says that it acts; terminated, and not verified
    unsigned char* record;  // a buffer of SECURITY_CMI_MAX_RECORD bytes; it becomes the reply's record
    uint32_t length;        // of the request's record
};

struct Answer {
    uint32_t status;
    uint32_t length;  // of the reply's record
    bool changed;     // whether the store may have changed
};

class Server {
 public:
    struct Settings {
        gid_t administrators = 0;  // a group; 0 for root alone
        // Handles a request. It logs its refusals, and never returns SECURITY_ERR_REQUEST_FRAME or
        // SECURITY_ERR_CONTEXT, which the server logs.
        std::function<Answer(const Peer&, ConnectionState&, Request&)> handle;
        // Called half a second after a change, and again as long as it returns false.
        std::function<bool()> checkpoint;
        std::function<void()> dump;  // called on SIGUSR1
        uint32_t context = 1;        // requests of other contexts are refused with SECURITY_ERR_CONTEXT
    };

    explicit Server(Settings settings);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts listening (platform/listener.h) and unblocks the signals. The caller holds the runtime folder's
    // lock. Returns false with errno set.
    bool listen();

    // The event loop, for what else the daemon serves. Owned by this object.
    event_base* loop() const;

    // Serves until SIGTERM or SIGINT, then blocks the signals again. Returns false if the loop failed.
    bool run();

    // Blocks SIGTERM, SIGINT and SIGUSR1: to be called when the process starts, so that they take effect only
    // after listen().
    static void hold_signals();

 private:
    struct Loop;
    std::unique_ptr<Loop> loop_;
};

}  // namespace quill
