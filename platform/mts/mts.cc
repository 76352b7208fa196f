// The ends of the message transport: the calls of whoever sends or listens.
//
// A handle is a number for one of two things: the carrier of the process that runs the fan-out, or a
// listener's connection to it.
#include "quillplatform/mts.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "platform/mts/message.h"

namespace quill {
namespace {

constexpr timeval kHandshakeTime{10, 0};

struct End {
    int socket = -1;  // of a listener
    quill_mts_carrier carrier = nullptr;
    void* context = nullptr;
    uint32_t error = 0;
};

std::mutex mutex;
std::map<uint32_t, End> ends;
uint32_t last_handle = 0;

// 0 when memory ran out.
uint32_t add(const End& end) {
    const std::lock_guard lock(mutex);
    try {
        ends[++last_handle] = end;
        return last_handle;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

End end_of(uint32_t handle) {
    const std::lock_guard lock(mutex);
    const auto found = ends.find(handle);
    return found == ends.end() ? End{.error = EBADF} : found->second;
}

void note(uint32_t handle, uint32_t error) {
    const std::lock_guard lock(mutex);
    const auto found = ends.find(handle);
    if (found != ends.end()) found->second.error = error;
}

int32_t try_send(const End& end, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length) {
    if (end.carrier == nullptr) return end.socket < 0 ? EBADF : EPERM;
    if (node != MTS_THIS_NODE) return EHOSTUNREACH;
    if (length > MTS_MAX_PAYLOAD) return EMSGSIZE;
    if (payload == nullptr && length != 0) return EINVAL;
    return end.carrier(end.context, sap, opcode, payload, length);
}

// A connection, closed again unless it is kept.
class Connection {
 public:
    Connection() : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}
    ~Connection() {
        const int kept_errno = errno;
        if (socket_ >= 0) close(socket_);
        errno = kept_errno;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool connect() {
        sockaddr_un address;
        if (socket_ < 0 || !socket_address(address, kAnnouncementSocket)) return false;
        return setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kHandshakeTime, sizeof kHandshakeTime) == 0 &&
               setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &kHandshakeTime, sizeof kHandshakeTime) == 0 &&
               in_time(::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    }

    bool welcome() {
        MtsWelcome frame;
        const ssize_t received = recv(socket_, &frame, sizeof frame, 0);
        if (received < 0) return in_time(false);
        errno = received == 0 ? ECONNRESET : EPROTO;
        if (received != sizeof frame || !ours(frame)) return false;
        errno = static_cast<int>(static_cast<uint32_t>(frame.error));
        return errno == 0;
    }

    bool subscribe(uint32_t sap, uint32_t opcode) {
        MtsSubscription frame;
        frame.sap = sap;
        frame.opcode = opcode;
        return in_time(send(socket_, &frame, sizeof frame, MSG_NOSIGNAL) == sizeof frame);
    }

    int get() const { return socket_; }
    void keep() { socket_ = -1; }

 private:
    static bool in_time(bool done) {
        if (!done && errno == EAGAIN) errno = ETIMEDOUT;
        return done;
    }

    int socket_;
};

// Waits until there is something to receive; false with errno set.
bool wait_for_message(int socket, int32_t milliseconds) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    int left = milliseconds;
    for (;;) {
        pollfd readable{socket, POLLIN, 0};
        const int found = poll(&readable, 1, left);
        if (found > 0) return true;
        if (found < 0 && errno != EINTR) return false;
        if (milliseconds < 0) continue;
        left = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count());
        errno = ETIMEDOUT;
        if (left <= 0) return false;
    }
}

// The next message, whose size the socket says before it is taken.
std::unique_ptr<MtsMessage> receive(int socket) {
    const ssize_t size = recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0) return nullptr;
    errno = size == 0 ? ECONNRESET : EPROTO;
    if (size < static_cast<ssize_t>(sizeof(MtsHead))) return nullptr;
    const auto payload_size = static_cast<uint32_t>(size) - static_cast<uint32_t>(sizeof(MtsHead));
    auto message = std::make_unique<MtsMessage>(0, 0u, payload_size);
    MtsHead head;
    iovec parts[] = {{&head, sizeof head}, {message->payload(), payload_size}};
    msghdr whole{};
    whole.msg_iov = parts;
    whole.msg_iovlen = 2;
    const ssize_t received = recvmsg(socket, &whole, 0);
    errno = EPROTO;
    if (received != size || !ours(head) || head.length != payload_size) return nullptr;
    message->opcode = head.opcode;
    message->lost = head.lost;
    return message;
}

const MtsMessage* of(const void* message) { return static_cast<const MtsMessage*>(message); }

}  // namespace
}  // namespace quill

int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t, uint32_t, uint32_t) {
    const int32_t error = quill::try_send(quill::end_of(handle), node, sap, opcode, payload, length);
    if (error == 0) return 0;
    quill::note(handle, static_cast<uint32_t>(error));
    return -1;
}

uint32_t mts_errno_get(uint32_t handle) { return quill::end_of(handle).error; }

uint32_t mts_opc_get(const void* message) { return message == nullptr ? 0 : quill::of(message)->opcode; }

void* mts_payload_get(const void* message) {
    const bool empty = mts_payload_size(message) == 0;
    return empty ? nullptr : const_cast<unsigned char*>(quill::of(message)->payload());
}

uint32_t mts_payload_size(const void* message) { return message == nullptr ? 0 : quill::of(message)->size(); }

int32_t quill_mts_listen(uint32_t sap, uint32_t opcode, uint32_t* handle) {
    try {
        quill::Connection connection;
        if (!connection.connect() || !connection.welcome() || !connection.subscribe(sap, opcode) ||
            !connection.welcome())
            return -1;
        *handle = quill::add({.socket = connection.get()});
        if (*handle == 0) throw std::bad_alloc();
        connection.keep();
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

void* quill_mts_receive(uint32_t handle, int32_t milliseconds) {
    const quill::End end = quill::end_of(handle);
    try {
        errno = EBADF;
        if (end.socket >= 0 && quill::wait_for_message(end.socket, milliseconds)) {
            auto message = quill::receive(end.socket);
            if (message != nullptr) return message.release();
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    quill::note(handle, static_cast<uint32_t>(errno));
    return nullptr;
}

uint32_t quill_mts_lost(const void* message) { return message == nullptr ? 0 : quill::of(message)->lost; }

void quill_mts_free(void* message) { delete static_cast<quill::MtsMessage*>(message); }

void quill_mts_close(uint32_t handle) {
    const std::lock_guard lock(quill::mutex);
    const auto found = quill::ends.find(handle);
    if (found == quill::ends.end()) return;
    if (found->second.socket >= 0) close(found->second.socket);
    quill::ends.erase(found);
}

uint32_t quill_mts_attach(quill_mts_carrier carrier, void* context) {
    return quill::add({.carrier = carrier, .context = context});
}
