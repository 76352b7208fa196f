// The public functions of the message transport, for senders and listeners.
//
// A handle stands for an endpoint, which is one of two things: in the process that runs the fan-out, the
// function that passes messages to it; elsewhere, a listener's connection to the fan-out.
#include "quillplatform/mts.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "platform/mts/message.h"
#include "quillplatform/sysmgr.h"

namespace quill {
namespace {

constexpr timeval kHandshakeTimeout{10, 0};

struct Endpoint {
    int socket = -1;  // a listener's connection; owned by the table below
    quill_mts_carrier carrier = nullptr;
    void* context = nullptr;
    uint32_t error = 0;
};

std::mutex mutex;
std::map<uint32_t, Endpoint> endpoints;
uint32_t last_handle = 0;

// Returns the endpoint's new handle, or 0 if memory ran out.
uint32_t add(const Endpoint& endpoint) {
    const std::lock_guard lock(mutex);
    try {
        endpoints[++last_handle] = endpoint;
        return last_handle;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

// An unknown handle yields an endpoint with the error EBADF.
Endpoint find(uint32_t handle) {
    const std::lock_guard lock(mutex);
    const auto found = endpoints.find(handle);
    return found == endpoints.end() ? Endpoint{.error = EBADF} : found->second;
}

void set_error(uint32_t handle, uint32_t error) {
    const std::lock_guard lock(mutex);
    const auto found = endpoints.find(handle);
    if (found != endpoints.end()) found->second.error = error;
}

int32_t try_send(const Endpoint& endpoint, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length) {
    if (endpoint.carrier == nullptr) return endpoint.socket < 0 ? EBADF : EPERM;
    if (node != MTS_THIS_NODE) return EHOSTUNREACH;
    if (length > MTS_MAX_PAYLOAD) return EMSGSIZE;
    if (payload == nullptr && length != 0) return EINVAL;
    return endpoint.carrier(endpoint.context, sap, opcode, payload, length);
}

// A new listener's connection. The functions return false with errno set on failure.
class Connection {
 public:
    bool connect() {
        sockaddr_un address;
        if (!socket_ || !socket_address(address, kAnnouncementSocket)) return false;
        return setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kHandshakeTimeout,
                          sizeof kHandshakeTimeout) == 0 &&
               setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &kHandshakeTimeout,
                          sizeof kHandshakeTimeout) == 0 &&
               timeout_as_etimedout(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                                              sizeof address) == 0);
    }

    bool receive_welcome() {
        MtsWelcome frame;
        const ssize_t received = recv(socket_.get(), &frame, sizeof frame, 0);
        if (received < 0) return timeout_as_etimedout(false);
        errno = received == 0 ? ECONNRESET : EPROTO;
        if (received != sizeof frame || !ours(frame)) return false;
        errno = static_cast<int>(static_cast<uint32_t>(frame.error));
        return errno == 0;
    }

    bool subscribe(uint32_t sap, uint32_t opcode) {
        const int32_t context = sysmgrcmn_vdc_id_get();
        if (context < 1) throw std::bad_alloc();  // while reading the configuration
        MtsSubscription frame;
        frame.context = static_cast<uint32_t>(context);
        frame.sap = sap;
        frame.opcode = opcode;
        return timeout_as_etimedout(send(socket_.get(), &frame, sizeof frame, MSG_NOSIGNAL) == sizeof frame);
    }

    int get() const { return socket_.get(); }
    // Gives up ownership of the socket.
    void release() { socket_.release(); }

 private:
    static bool timeout_as_etimedout(bool done) {
        if (!done && errno == EAGAIN) errno = ETIMEDOUT;
        return done;
    }

    Descriptor socket_{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
};

// Waits until a message can be received or the other end has closed; a negative time is no limit. Returns
// false with errno set on failure, ETIMEDOUT after that time.
bool wait_for_message(int socket, int32_t milliseconds) {
    const Deadline deadline = milliseconds < 0 ? kNever : after(std::chrono::milliseconds(milliseconds));
    do {
        pollfd readable{socket, POLLIN, 0};
        const int found = poll(&readable, 1, milliseconds_left(deadline));
        if (found > 0) return true;
        if (found < 0 && errno != EINTR) return false;
    } while (!passed(deadline));
    errno = ETIMEDOUT;
    return false;
}

// Receives the next message, whose size is queried first. Returns null with errno set on failure.
std::unique_ptr<MtsMessage> receive(int socket) {
    const ssize_t size = recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0) return nullptr;
    errno = size == 0 ? ECONNRESET : EPROTO;
    if (size < static_cast<ssize_t>(sizeof(MtsHeader))) return nullptr;
    const auto payload_size = static_cast<uint32_t>(size) - static_cast<uint32_t>(sizeof(MtsHeader));
    auto message = std::make_unique<MtsMessage>(0, 0u, payload_size);
    MtsHeader header;
    iovec parts[] = {{&header, sizeof header}, {message->payload(), payload_size}};
    msghdr whole{};
    whole.msg_iov = parts;
    whole.msg_iovlen = 2;
    const ssize_t received = recvmsg(socket, &whole, 0);
    errno = EPROTO;
    if (received != size || !ours(header) || header.length != payload_size) return nullptr;
    message->opcode = header.opcode;
    message->lost = header.lost;
    return message;
}

const MtsMessage* as_message(const void* message) { return static_cast<const MtsMessage*>(message); }

}  // namespace
}  // namespace quill

int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t, uint32_t, uint32_t) {
    const int32_t error = quill::try_send(quill::find(handle), node, sap, opcode, payload, length);
    if (error == 0) return 0;
    quill::set_error(handle, static_cast<uint32_t>(error));
    return -1;
}

uint32_t mts_errno_get(uint32_t handle) { return quill::find(handle).error; }

uint32_t mts_opc_get(const void* message) {
    return message == nullptr ? 0 : quill::as_message(message)->opcode;
}

void* mts_payload_get(const void* message) {
    const bool empty = mts_payload_size(message) == 0;
    return empty ? nullptr : const_cast<unsigned char*>(quill::as_message(message)->payload());
}

uint32_t mts_payload_size(const void* message) {
    return message == nullptr ? 0 : quill::as_message(message)->size();
}

int32_t quill_mts_listen(uint32_t sap, uint32_t opcode, uint32_t* handle) {
    try {
        quill::Connection connection;
        if (!connection.connect() || !connection.receive_welcome() || !connection.subscribe(sap, opcode) ||
            !connection.receive_welcome())
            return -1;
        *handle = quill::add({.socket = connection.get()});
        if (*handle == 0) throw std::bad_alloc();
        connection.release();
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

void* quill_mts_receive(uint32_t handle, int32_t milliseconds) {
    const quill::Endpoint endpoint = quill::find(handle);
    try {
        errno = EBADF;
        if (endpoint.socket >= 0 && quill::wait_for_message(endpoint.socket, milliseconds)) {
            auto message = quill::receive(endpoint.socket);
            if (message != nullptr) return message.release();
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    quill::set_error(handle, static_cast<uint32_t>(errno));
    return nullptr;
}

uint32_t quill_mts_lost(const void* message) {
    return message == nullptr ? 0 : quill::as_message(message)->lost;
}

void quill_mts_free(void* message) { delete static_cast<quill::MtsMessage*>(message); }

void quill_mts_close(uint32_t handle) {
    const std::lock_guard lock(quill::mutex);
    const auto found = quill::endpoints.find(handle);
    if (found == quill::endpoints.end()) return;
    if (found->second.socket >= 0) close(found->second.socket);
    quill::endpoints.erase(found);
}

uint32_t quill_mts_attach(quill_mts_carrier carrier, void* context) {
    return quill::add({.carrier = carrier, .context = context});
}
