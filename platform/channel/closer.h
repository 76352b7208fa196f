// Receiving and closing without being held up by files that a peer passes (SCM_RIGHTS, unix(7)).
//
// Whoever drops the last reference to a passed file closes it, and that may take as long as its sender likes:
// a TCP socket with SO_LINGER and unsent data holds up whoever closes it, unless that is a process that ends.
// A receiver that wants no files drops them within recv(2), and close(2) drops those of the messages that
// were never received, with all that lies in the queues of passed Unix sockets in turn.
//
// Kernels since Linux 6.16 refuse such messages where their sender sends them (SO_PASSRIGHTS). Elsewhere a
// look at each message comes before it is received, and a connection that has such a message, or anything
// else unread when it is closed, is closed by a child process: it shares the descriptor, the daemon closes
// its own, and the child ends. One child serves all connections of a moment, and few run at a time, so nobody
// has the daemon fork without bound.
#pragma once

#include <array>
#include <vector>

#include "base/non_copyable.h"
#include "base/process.h"
#include "platform/event.h"

namespace quill {

class Closer : NonCopyable {
 public:
    explicit Closer(event_base* base);

    // To be called for a socket before listen(2); its connections inherit what it does.
    void protect(int listener);

    // As recv(2) with MSG_DONTWAIT and MSG_TRUNC, of a connected SOCK_SEQPACKET socket. A message with files
    // is not received: -1 with errno EBADMSG, and the connection is to be closed.
    ssize_t receive(int socket, void* buffer, size_t room) const;

    // Ends the connection, or the listening, and takes ownership of the descriptor.
    void close(int socket);

    // Whether so many connections wait for a child that no new ones are to be accepted.
    bool is_full() const { return waiting_.size() >= kBatch; }

 private:
    static constexpr size_t kBatch = 24;
    static constexpr size_t kMostChildren = 4;

    void close_waiting();
    void forget_ended_children();

    bool kernel_refuses_ = false;
    std::vector<int> waiting_;  // shut down; what they hold is still to be dropped
    std::vector<Child> children_;
    Event timer_;
};

}  // namespace quill
