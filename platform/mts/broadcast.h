// The fan-out of the message transport (quillplatform/mts.h), in the daemon's loop.
//
// The newest messages are kept once, in a ring; a listener is a place in it. Whoever cannot take a message
// just now keeps its place and goes on from there when its socket has room, and is moved forward when the
// ring drops what it still waits for. So a listener that sleeps costs the others nothing, and the daemon no
// more memory than the ring: 8192 messages and 4 MiB at most.
//
// There are 64 places for listeners, 16 of them for root alone, and no other uid has more than 16. A listener
// that does not subscribe within 10 seconds loses its place.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

struct event_base;

namespace quill {

class Broadcast {
 public:
    // Root and the members of the group, unless it is 0, may listen, from `context` alone.
    Broadcast(event_base* base, gid_t administrators, uint32_t context);
    ~Broadcast();
    Broadcast(const Broadcast&) = delete;
    Broadcast& operator=(const Broadcast&) = delete;

    // Takes over the socket's name, as the request channel does with its own. False with errno set.
    bool listen();

    // Answers at a service point inside this process: the function is given each message to it, for
    // mts_opc_get and the like, before mts_send() returns, and may send in its turn.
    void serve(uint32_t sap, std::function<void(const void* message)> service);

    // For mts_send().
    uint32_t handle() const;

 private:
    struct Ring;
    std::unique_ptr<Ring> ring_;
};

}  // namespace quill
