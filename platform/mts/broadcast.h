// The fan-out of the message transport (quillplatform/mts.h), in the daemon's loop.
//
// The newest messages are kept once, in a ring buffer of at most 8192 messages and 4 MiB; each listener has a
// position in it. A listener whose socket is full continues from its position when the socket has room. When
// the ring drops messages that it was not sent yet, its position moves forward and the messages count as
// lost. So a listener that does not receive delays nobody, and takes no memory beside the ring.
//
// Up to 64 listeners can be connected at a time; 16 of these connections are reserved for root, and no other
// uid has more than 16. A listener that does not subscribe within 10 seconds is disconnected.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

struct event_base;

namespace quill {

class Broadcast {
 public:
    // Root and the members of the group (0 for none) may listen, if they run in `context`. Throws
    // std::bad_alloc.
    Broadcast(event_base* base, gid_t administrators, uint32_t context);
    ~Broadcast();
    Broadcast(const Broadcast&) = delete;
    Broadcast& operator=(const Broadcast&) = delete;

    // Starts listening (platform/listener.h). Returns false with errno set.
    bool listen();

    // Provides a service point in this process: the function is called with each message to it (for
    // mts_opc_get() and the like) before mts_send() returns. It may send messages.
    void serve(uint32_t sap, std::function<void(const void* message)> service);

    // For mts_send().
    uint32_t handle() const;

 private:
    struct Ring;
    std::unique_ptr<Ring> ring_;
};

}  // namespace quill
