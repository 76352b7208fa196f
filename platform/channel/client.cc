// The client's end of the request channel.
//
// A process has one connection, made on first use and again after it was lost. A request is sent again only
// if it cannot have reached the daemon; one that was delivered but got no reply is reported, since it may
// have been executed. A user's list of roles or locales that was read on a connection that is lost is not
// stored over another one: the daemon compares the two only within a connection, so a change by another
// client in between would be overwritten. Such a request fails with ESTALE until the list is read again.
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "base/context_name.h"
#include "base/deadline.h"
#include "base/last_reads.h"
#include "platform/channel/frame.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity/status.h"

uint32_t security_cmi_timeout = 60;
const char* security_cmi_username = nullptr;
uint32_t security_cmi_session_id = 0;

namespace quill {
namespace {

constexpr uint32_t kDefaultTimeout = 60;

Deadline request_deadline() {
    return after(std::chrono::seconds(security_cmi_timeout != 0 ? security_cmi_timeout : kDefaultTimeout));
}

// Returns the time that is left, rounded up to a tenth of a second: so the socket usually has this timeout
// already, from the last request. Never 0, which would disable the timeout.
std::chrono::milliseconds time_left(Deadline deadline) {
    constexpr std::chrono::milliseconds kTenth(100);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return std::max((left + kTenth - std::chrono::milliseconds(1)) / kTenth * kTenth, kTenth);
}

// Decides whether to poll for the reply before blocking: waking up costs more than most requests, but polling
// occupies a processor. It pays if the last reply came soon and this process may use more than one processor,
// so that the daemon most likely runs on another.
class Polling {
 public:
    void start() { start_ = Clock::now(); }
    bool continues() const { return pays_ && several_processors_ && waited() < kTime; }
    void end() {
        pays_ = waited() < kTime;
        if (!pays_ || ++replies_ % kRecount == 0) count_processors();  // the affinity may have changed
    }
    void count_processors() {
        cpu_set_t set;
        several_processors_ = sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
    }

 private:
    Clock::duration waited() const { return Clock::now() - start_; }

    static constexpr std::chrono::microseconds kTime{40};
    static constexpr uint32_t kRecount = 256;  // replies

    Clock::time_point start_;
    uint32_t replies_ = 0;
    bool pays_ = false;
    bool several_processors_ = false;
};

class Connection {
 public:
    // Returns the connected socket, or -1 with errno set.
    int get(Deadline deadline);
    int socket() const { return socket_; }
    uint64_t number() const { return number_; }  // counts the connections of this process
    void drop();                                 // preserves errno
    // Sets the timeout of the socket's calls. Returns false with errno set on failure.
    bool set_timeout(std::chrono::milliseconds time);
    // Drops a connection to the daemon of another context.
    void enter(uint32_t context) {
        if (std::exchange(context_, context) != context) drop();
    }

 private:
    // A connection shared with the parent process would mix both processes' replies.
    bool inherited() const { return socket_ >= 0 && owner_ != getpid(); }

    int socket_ = -1;
    uint64_t number_ = 0;
    pid_t owner_ = 0;
    uint32_t context_ = 0;
    std::chrono::milliseconds timeout_{};
};

std::mutex mutex;
Connection connection;
Polling polling;
Frame<RequestHeader> request;
Frame<ReplyHeader> reply_frame;
size_t reply_size;  // bytes of reply_frame that were received

// The number of the connection on which each list was read. Never destroyed: other threads may make requests
// while the process exits.
LastReads<uint64_t>& list_reads = *new LastReads<uint64_t>;

void Connection::drop() {
    const int kept_errno = errno;
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
    errno = kept_errno;
}

bool Connection::set_timeout(std::chrono::milliseconds time) {
    if (time == timeout_) return true;
    const int64_t seconds =
        std::min<int64_t>(time.count() / 1000, INT32_MAX);  // a 32-bit time_t holds no more
    const timeval value{static_cast<time_t>(seconds), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
    if (setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value) != 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) != 0)
        return false;
    timeout_ = time;
    return true;
}

// Returns true if a call failed because of a signal and there is time to repeat it. Otherwise, if the time is
// over, sets errno to ETIMEDOUT.
bool should_repeat(Deadline deadline) {
    if (errno == EINTR && !passed(deadline)) return true;
    if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;
    return false;
}

int Connection::get(Deadline deadline) {
    if (inherited()) drop();
    if (socket_ >= 0) return socket_;
    sockaddr_un address;
    if (!socket_address(address)) return -1;
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0) return -1;
    owner_ = getpid();
    timeout_ = {};
    while (set_timeout(time_left(deadline))) {
        if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            polling.count_processors();
            ++number_;
            return socket_;
        }
        if (!should_repeat(deadline)) break;  // ETIMEDOUT: the daemon's queue stayed full
    }
    drop();
    return -1;
}

// Whether an error of send() means that the daemon had closed the connection, and so did not get the request.
bool means_closed(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

// A daemon that has too many clients says so and closes the connection, often before the request is sent.
bool reply_waits(int socket) {
    char byte;
    return recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) > 0;
}

// Returns the plain name of the user in the first field of the request's record.
std::string listed_user() {
    const auto* field = reinterpret_cast<const char*>(request.record);
    std::string user(field, strnlen(field, std::min<size_t>(request.header.length,
                                                            sizeof security_user_roles::user_name)));
    const bool qualified = request.header.context != static_cast<uint32_t>(kDefaultContext) &&
                           has_context_suffix(user.c_str()) &&
                           static_cast<uint32_t>(context_of(user.c_str())) == request.header.context;
    if (qualified) user.resize(user.size() - kContextSuffix);
    return user;
}

// Whether the request stores a list that was, or may have been, read on an earlier connection.
bool is_stale() {
    const uint32_t type = request.header.request_type;
    if (request.header.operation != SET_REQ || !carries_list(type)) return false;
    const uint64_t* read_on = list_reads.find(type, listed_user());
    return read_on != nullptr ? *read_on != connection.number() : list_reads.forgot();
}

enum class Sent { kYes, kNo, kConnectionWasClosed };

// Sends the request. On failure sets errno; drops the connection if send() failed.
Sent try_to_send(Deadline deadline) {
    do {
        const int socket = connection.get(deadline);
        if (socket < 0 || !connection.set_timeout(time_left(deadline))) return Sent::kNo;
        if (is_stale()) {
            errno = ESTALE;
            return Sent::kNo;
        }
        if (send(socket, &request, sizeof request.header + request.header.length, MSG_NOSIGNAL) >= 0)
            return Sent::kYes;
    } while (should_repeat(deadline));
    const bool closed = means_closed(errno);
    if (closed && reply_waits(connection.socket())) return Sent::kYes;
    connection.drop();
    return closed ? Sent::kConnectionWasClosed : Sent::kNo;
}

// Sends the request, if need be over a second connection. Returns false with errno set on failure.
bool send_request(Deadline deadline) {
    Sent sent = try_to_send(deadline);
    if (sent == Sent::kConnectionWasClosed) sent = try_to_send(deadline);
    return sent == Sent::kYes;
}

// Returns the length of the received message, which may be more than the buffer holds.
ssize_t receive(int socket) {
    while (polling.continues()) {
        const ssize_t received = recv(socket, &reply_frame, sizeof reply_frame, MSG_TRUNC | MSG_DONTWAIT);
        if (received >= 0 || errno != EAGAIN) return received;
        sched_yield();  // the daemon may wait for this processor
    }
    return recv(socket, &reply_frame, sizeof reply_frame, MSG_TRUNC);
}

// Whether the received message of this length is a reply; 0 is the end of the connection. Sets errno if not.
bool is_reply(size_t length) {
    if (length == 0) {
        errno = ECONNRESET;
        return false;
    }
    polling.end();
    reply_size = std::min(length, sizeof reply_frame);
    if (length == reply_size && well_formed(reply_frame.header, length)) return true;
    errno = EPROTO;
    return false;
}

// Receives the reply. On failure returns false with errno set and drops the connection, so that a late reply
// is not taken for that of the next request.
bool receive_reply(Deadline deadline) {
    // If the daemon closes without reading the request, ECONNRESET comes once, before what it had sent.
    bool was_reset = false;
    polling.start();
    while (connection.set_timeout(time_left(deadline))) {
        const ssize_t received = receive(connection.socket());
        if (received >= 0) {
            if (is_reply(static_cast<size_t>(received))) return true;
            break;
        }
        const bool first_reset = errno == ECONNRESET && !std::exchange(was_reset, true);
        if (!first_reset && !should_repeat(deadline)) break;
    }
    connection.drop();
    return false;
}

void write_request(uint32_t context, int32_t request_type, uint32_t operation, const void* record,
                   uint32_t length) {
    RequestHeader& header = request.header;
    header.request_type = static_cast<uint32_t>(request_type);
    header.operation = operation;
    header.session = security_cmi_session_id;
    header.context = context;
    header.length = length;
    const char* user_name = security_cmi_username != nullptr ? security_cmi_username : "";
    const size_t name_length = strnlen(user_name, sizeof header.user_name - 1);
    memset(header.user_name, 0, sizeof header.user_name);
    memcpy(header.user_name, user_name, name_length);
    if (length != 0) memcpy(request.record, record, length);
}

int32_t exchange(int32_t request_type, uint32_t operation, const void* record, uint32_t length) {
    if (length > SECURITY_CMI_MAX_RECORD) {
        errno = EMSGSIZE;
        return -1;
    }
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context < 1) throw std::bad_alloc();  // while reading the configuration
    connection.enter(static_cast<uint32_t>(context));
    write_request(static_cast<uint32_t>(context), request_type, operation, record, length);
    const Deadline deadline = request_deadline();
    if (!send_request(deadline) || !receive_reply(deadline)) return -1;
    const uint32_t status = reply_frame.header.status;
    if (status == SECURITY_ERR_BUSY) connection.drop();  // the daemon is about to close it
    if (status == SECURITY_OK && reads_to_change(request.header.request_type, request.header.operation))
        list_reads.remember(request.header.request_type, listed_user(), connection.number());
    if (status <= INT32_MAX) return static_cast<int32_t>(status);
    errno = EPROTO;  // the caller would take a negative status for a failure of the channel
    return -1;
}

// Copies the reply's record to a block of *length bytes for the caller; stores null and 0 if it is shorter
// than `least`. Returns false with errno set if memory ran out.
bool copy_record(void** reply, uint32_t* length, uint32_t least) {
    *length = reply_frame.header.length;
    if (*length < least) *length = 0;
    if (*length == 0) return true;
    *reply = malloc(*length);
    if (*reply == nullptr) {
        *length = 0;
        errno = ENOMEM;
        return false;
    }
    memcpy(*reply, reply_frame.record, *length);
    return true;
}

}  // namespace
}  // namespace quill

int32_t security_cmi(int32_t request_type, uint32_t operation, void* record, void** reply, uint32_t* length,
                     uint32_t) {
    using namespace quill;
    const std::lock_guard lock(mutex);
    if (reply != nullptr) *reply = nullptr;
    const uint32_t request_length = *length;
    *length = 0;
    int32_t status = -1;
    try {
        status = exchange(request_type, operation, record, request_length);
        if (status >= 0 && reply != nullptr && !copy_record(reply, length, request_length)) status = -1;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    // Both may have secrets, even a reply that was refused.
    if (request_length <= sizeof request.record) explicit_bzero(request.record, request_length);
    explicit_bzero(&reply_frame, std::exchange(reply_size, 0));
    return status;
}

int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void**, uint32_t* length,
                      uint32_t connection) {
    return security_cmi(request_type, operation, request, nullptr, length, connection);
}
