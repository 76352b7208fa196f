// Receives messages and closes connections without being blocked by files that a peer passes (SCM_RIGHTS,
// unix(7)).
//
// The process that drops the last reference to a file closes it, and the sender decides how long that takes:
// a TCP socket with SO_LINGER and unsent data blocks close(2), though not the end of a process. The daemon
// would drop such references in recv(2), which drops files that it has no room for, and in close(2), which
// drops those of messages that were not received, and so on in the queues of passed Unix sockets.
//
// Kernels since Linux 6.16 can refuse such messages when they are sent (SO_PASSRIGHTS). On others, each
// message is looked at before it is received. A connection that has a message with files, or has unread data
// when it is to be closed, is left to a child process: the child shares the descriptor, the daemon closes its
// own, and then kills the child, whose end drops the last references. One child serves a whole batch of
// connections, and the number of children is limited, so peers cannot make the daemon fork without bound.
#pragma once

#include <array>
#include <vector>

#include "base/process.h"
#include "platform/event.h"

namespace quill {

class Closer {
 public:
    explicit Closer(event_base* base);
    ~Closer() = default;
    Closer(const Closer&) = delete;
    Closer& operator=(const Closer&) = delete;

    // To be called for a socket before listen(2); its connections inherit the options.
    void protect(int listener);

    // As recv(2) with MSG_DONTWAIT and MSG_TRUNC, for a connected SOCK_SEQPACKET socket. Does not receive a
    // message with files, but returns -1 with errno EBADMSG; the caller must close the connection then.
    ssize_t receive(int socket, void* buffer, size_t room) const;

    // Closes a connection or a listening socket; takes ownership of the descriptor.
    void close(int socket);

    // Returns true if so many connections wait for a child that the caller must not accept new ones.
    bool is_full() const { return waiting_.size() >= kBatch; }

 private:
    static constexpr size_t kBatch = 24;
    static constexpr size_t kMostChildren = 4;

    void close_waiting();
    void forget_ended_children();

    bool kernel_refuses_ = false;
    std::vector<int> waiting_;  // shut down, but not closed
    std::vector<Child> children_;
    Event timer_;
};

}  // namespace quill
