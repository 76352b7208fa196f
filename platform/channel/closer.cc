#include "platform/channel/closer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quill {
namespace {

constexpr int kPassRights = 83;  // SO_PASSRIGHTS of Linux 6.16, which the headers do not have yet

constexpr timeval kBatchTime{0, 20000};
constexpr size_t kMostWaiting = 2048;  // more than there are connections

// Whether a socket that was shut down, so that nothing more arrives, has no unread data. An empty message
// differs from the end of the connection only by its sender's credentials.
bool is_empty(int socket) {
    const int on = 1;
    if (setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) return false;
    for (int attempt = 0; attempt < 2; ++attempt) {  // the first may return a pending error
        alignas(cmsghdr) char credentials[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_control = credentials;
        message.msg_controllen = sizeof credentials;  // no room for a descriptor
        const ssize_t size = recvmsg(socket, &message, MSG_PEEK | MSG_DONTWAIT);
        if (size >= 0)
            return size == 0 && message.msg_controllen == 0 && (message.msg_flags & MSG_CTRUNC) == 0;
    }
    return false;
}

// Keeps the descriptors until it is killed: the end of a process does not wait for the files that it closes.
[[noreturn]] int hold_descriptors(pid_t daemon) {
    die_with_parent(daemon);
    for (;;) pause();
}

}  // namespace

Closer::Closer(event_base* base)
    : timer_(make_event(
          base, -1, 0,
          [](evutil_socket_t, short, void* closer) { static_cast<Closer*>(closer)->close_waiting(); },
          this)) {
    // close() must not allocate memory.
    waiting_.reserve(kMostWaiting);
    children_.reserve(kMostChildren);
}

void Closer::protect(int listener) {
    const int off = 0;
    kernel_refuses_ = setsockopt(listener, SOL_SOCKET, kPassRights, &off, sizeof off) == 0;
}

ssize_t Closer::receive(int socket, void* buffer, size_t room) const {
    if (!kernel_refuses_) {
        msghdr message{};  // no room for files; they are not dropped, because of MSG_PEEK
        if (recvmsg(socket, &message, MSG_PEEK | MSG_DONTWAIT) < 0) return -1;
        errno = EBADMSG;
        if ((message.msg_flags & MSG_CTRUNC) != 0) return -1;
    }
    return recv(socket, buffer, room, MSG_DONTWAIT | MSG_TRUNC);
}

void Closer::close(int socket) {
    if (kernel_refuses_) {
        ::close(socket);
        return;
    }
    shutdown(socket, SHUT_RDWR);
    if (is_empty(socket)) {
        ::close(socket);
        return;
    }
    waiting_.push_back(socket);
    if (is_full() || event_add(timer_.get(), &kBatchTime) != 0) close_waiting();
}

void Closer::forget_ended_children() {
    std::erase_if(children_, [](Child& child) { return child.has_ended(); });
}

void Closer::close_waiting() {
    forget_ended_children();
    if (!waiting_.empty() && children_.size() < kMostChildren) {
        Child child = Child::call([daemon = getpid()] { return hold_descriptors(daemon); });
        if (child.id() > 0) {
            for (const int socket : waiting_) ::close(socket);
            waiting_.clear();
            child.kill();
            children_.push_back(std::move(child));
        }
    }
    if (!waiting_.empty() || !children_.empty()) event_add(timer_.get(), &kBatchTime);
}

}  // namespace quill
