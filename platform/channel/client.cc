// The client's end of the request channel.
//
// One connection a process, made when it is first needed and again when it turns out to be gone. A message is
// sent again only when it certainly never reached the daemon; a request that was delivered and not answered
// is reported, since it may have been done.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/channel/frame.h"
#include "quillplatform/shell.h"

uint32_t security_cmi_timeout = 60;
const char* security_cmi_username = nullptr;
uint32_t security_cmi_session_id = 0;

namespace quill {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kDefaultTimeout = 60;

class Deadline {
 public:
    Deadline() : at_(Clock::now() + std::chrono::seconds(limit())) {}
    bool passed() const { return Clock::now() >= at_; }
    // In whole tenths of a second, rounded up: a request that nothing delays finds the bound that the last
    // one set. Never 0, which would mean to wait for ever.
    std::chrono::milliseconds left() const {
        constexpr std::chrono::milliseconds kTenth(100);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(at_ - Clock::now());
        return std::max((left + kTenth - std::chrono::milliseconds(1)) / kTenth * kTenth, kTenth);
    }

 private:
    static uint32_t limit() { return security_cmi_timeout != 0 ? security_cmi_timeout : kDefaultTimeout; }

    Clock::time_point at_;
};

class Connection {
 public:
    // The socket, connected; -1 with errno set.
    int get(const Deadline& deadline);
    void drop();
    // Bounds the socket's calls by the time that is left, whenever that differs from the last bound.
    bool bound(std::chrono::milliseconds time);
    bool inherited() const { return socket_ >= 0 && owner_ != getpid(); }

 private:
    int socket_ = -1;
    pid_t owner_ = 0;
    std::chrono::milliseconds bound_{};
};

struct Answer {
    ReplyHead head;
    unsigned char record[SECURITY_CMI_MAX_RECORD];
};

std::mutex mutex;
Connection connection;
Answer answer;

void Connection::drop() {
    const int kept_errno = errno;
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
    errno = kept_errno;
}

bool Connection::bound(std::chrono::milliseconds time) {
    if (time == bound_) return true;
    const int64_t seconds =
        std::min<int64_t>(time.count() / 1000, INT32_MAX);  // a 32-bit time_t holds no more
    const timeval value{static_cast<time_t>(seconds), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
    if (setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value) != 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) != 0)
        return false;
    bound_ = time;
    return true;
}

int Connection::get(const Deadline& deadline) {
    // A connection shared with the parent would mix both processes' replies.
    if (inherited()) drop();
    if (socket_ >= 0) return socket_;
    sockaddr_un address;
    if (!socket_address(address)) return -1;
    socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0) return -1;
    owner_ = getpid();
    bound_ = {};
    while (bound(deadline.left())) {
        if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return socket_;
        if (errno == EINTR && !deadline.passed()) continue;
        if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;  // the daemon's queue stayed full
        break;
    }
    drop();
    return -1;
}

bool never_arrived(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

// Sends the message, on a new connection where the old one has lost its daemon. False with errno set.
bool send_request(msghdr& message, const Deadline& deadline) {
    for (bool fresh = false;;) {
        const int socket = connection.get(deadline);
        if (socket < 0 || !connection.bound(deadline.left())) return false;
        if (sendmsg(socket, &message, MSG_NOSIGNAL) >= 0) return true;
        if (errno == EINTR && !deadline.passed()) continue;
        if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;
        const bool again = never_arrived(errno) && !fresh;
        connection.drop();
        if (!again) return false;
        fresh = true;
    }
}

// Receives the reply into `answer`. False with errno set, and the connection is gone then: whatever comes
// late must not answer the next question.
bool receive_reply(const Deadline& deadline) {
    iovec parts[] = {{&answer.head, sizeof answer.head}, {answer.record, sizeof answer.record}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    while (connection.bound(deadline.left())) {
        const ssize_t received = recvmsg(connection.get(deadline), &message, 0);
        if (received > 0) {
            const bool whole = (message.msg_flags & MSG_TRUNC) == 0;
            if (whole && well_formed(answer.head, static_cast<size_t>(received))) return true;
            errno = EPROTO;
        } else if (received == 0) {
            errno = ECONNRESET;
        } else if (errno == EINTR && !deadline.passed()) {
            continue;
        } else if (errno == EAGAIN || errno == EINTR) {
            errno = ETIMEDOUT;
        }
        break;
    }
    connection.drop();
    return false;
}

int32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length) {
    if (length > SECURITY_CMI_MAX_RECORD) {
        errno = EMSGSIZE;
        return -1;
    }
    RequestHead head;
    head.request_type = static_cast<uint32_t>(request_type);
    head.operation = operation;
    head.session = security_cmi_session_id;
    head.length = length;
    const char* user_name = security_cmi_username != nullptr ? security_cmi_username : "";
    const size_t name_length = strnlen(user_name, sizeof head.user_name - 1);
    memset(head.user_name, 0, sizeof head.user_name);
    memcpy(head.user_name, user_name, name_length);

    iovec parts[] = {{&head, sizeof head}, {record, length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const Deadline deadline;
    if (!send_request(message, deadline) || !receive_reply(deadline)) return -1;
    const uint32_t status = answer.head.status;
    if (status <= INT32_MAX) return static_cast<int32_t>(status);
    errno = EPROTO;  // no status of a daemon: it would pass for a failure of the channel
    return -1;
}

// A block of the reply's record, or null where it has none. False when memory ran out.
bool hand_over(void** reply, uint32_t* length) {
    *length = answer.head.length;
    if (*length == 0) return true;
    *reply = malloc(*length);
    if (*reply == nullptr) {
        *length = 0;
        errno = ENOMEM;
        return false;
    }
    memcpy(*reply, answer.record, *length);
    return true;
}

}  // namespace
}  // namespace quill

int32_t security_cmi(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t) {
    using namespace quill;
    const std::lock_guard lock(mutex);
    if (reply != nullptr) *reply = nullptr;
    const uint32_t request_length = *length;
    *length = 0;
    try {
        const int32_t status = exchange(request_type, operation, request, request_length);
        if (status < 0) return -1;
        const bool taken = reply == nullptr || hand_over(reply, length);
        explicit_bzero(answer.record, answer.head.length);  // replies carry secrets
        return taken ? status : -1;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void**, uint32_t* length,
                      uint32_t connection) {
    return security_cmi(request_type, operation, request, nullptr, length, connection);
}
