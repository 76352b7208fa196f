// The client's end of the request channel.
//
// One connection a process, made when it is first needed and again when it turns out to be gone. A message is
// sent again only when it certainly never reached the daemon; a request that was delivered and not answered
// is reported, since it may have been done. A user's list that was read on a connection that is gone since,
// in order to change it, is not stored on another: the daemon, which compares the two, knows nothing of the
// read there, and the change of somebody else in between would be lost. That is errno ESTALE, until the list
// is read again.
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

// The time that is left, in whole tenths of a second, rounded up: a request that nothing delays then finds the
// timeout that the previous one set. Never 0, which would mean no timeout.
std::chrono::milliseconds time_left(Deadline deadline) {
    constexpr std::chrono::milliseconds kTenth(100);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return std::max((left + kTenth - std::chrono::milliseconds(1)) / kTenth * kTenth, kTenth);
}

// Whether to poll for the reply before blocking: waking up costs more than most requests, but polling occupies a
// processor. Worth it where the last reply came soon and this process may use
// more than one processor, so that the daemon has another, most likely.
class ShortLook {
 public:
    void begin() { start_ = Clock::now(); }
    bool goes_on() const { return pays_ && several_processors_ && waited() < kTime; }
    void end() {
        pays_ = waited() < kTime;
        if (!pays_ || ++looks_ % kRecount == 0) count_processors();  // they may be others by now
    }
    void count_processors() {
        cpu_set_t set;
        several_processors_ = sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
    }

 private:
    Clock::duration waited() const { return Clock::now() - start_; }

    static constexpr std::chrono::microseconds kTime{40};
    static constexpr uint32_t kRecount = 256;  // looks

    Clock::time_point start_;
    uint32_t looks_ = 0;
    bool pays_ = false;
    bool several_processors_ = false;
};

class Connection {
 public:
    // The socket, connected; -1 with errno set.
    int get(Deadline deadline);
    int socket() const { return socket_; }
    uint64_t number() const { return number_; }  // how many connections were made, with this one
    void drop();
    // Bounds the socket's calls by the time that is left, whenever that differs from the last bound.
    bool bound(std::chrono::milliseconds time);
    bool inherited() const { return socket_ >= 0 && owner_ != getpid(); }
    // Each context has a daemon of its own: a connection to another one's is given up.
    void enter(uint32_t context) {
        if (std::exchange(context_, context) != context) drop();
    }

 private:
    int socket_ = -1;
    uint64_t number_ = 0;
    pid_t owner_ = 0;
    uint32_t context_ = 0;
    std::chrono::milliseconds bound_{};
};

std::mutex mutex;
Connection connection;
ShortLook look;
Frame<RequestHead> request;
Frame<ReplyHead> answer;
size_t answered;  // bytes of it that were received

// By the number of the connection. Never destroyed: other threads may make requests while the process exits.
LastReads<uint64_t>& list_reads = *new LastReads<uint64_t>;

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

int Connection::get(Deadline deadline) {
    // A connection shared with the parent would mix both processes' replies.
    if (inherited()) drop();
    if (socket_ >= 0) return socket_;
    sockaddr_un address;
    if (!socket_address(address)) return -1;
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0) return -1;
    owner_ = getpid();
    bound_ = {};
    while (bound(time_left(deadline))) {
        if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            look.count_processors();
            ++number_;
            return socket_;
        }
        if (errno == EINTR && !passed(deadline)) continue;
        if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;  // the daemon's queue stayed full
        break;
    }
    drop();
    return -1;
}

bool never_arrived(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

// A daemon that has no place for another client says so and closes, often before the request is sent.
bool reply_waits(int socket) {
    char byte;
    return recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) > 0;
}

// The user in the first field of the record that is sent, by the plain name.
std::string listed_user() {
    const auto* field = reinterpret_cast<const char*>(request.record);
    std::string user(
        field, strnlen(field, std::min<size_t>(request.head.length, sizeof security_user_roles::user_name)));
    const bool qualified = request.head.context != static_cast<uint32_t>(kDefaultContext) &&
                           has_context_suffix(user.c_str()) &&
                           static_cast<uint32_t>(context_of(user.c_str())) == request.head.context;
    if (qualified) user.resize(user.size() - kContextSuffix);
    return user;
}

// Whether the request stores a list that was read on an earlier connection, or it is not known that it was
// not.
bool is_stale() {
    const uint32_t type = request.head.request_type;
    if (request.head.operation != SET_REQ || !carries_list(type)) return false;
    const uint64_t* read_on = list_reads.find(type, listed_user());
    return read_on != nullptr ? *read_on != connection.number() : list_reads.forgot();
}

// Sends the request, on a new connection where the old one has lost its daemon. False with errno set.
bool send_request(Deadline deadline) {
    for (bool fresh = false;;) {
        const int socket = connection.get(deadline);
        if (socket < 0 || !connection.bound(time_left(deadline))) return false;
        if (is_stale()) {
            errno = ESTALE;
            return false;
        }
        if (send(socket, &request, sizeof request.head + request.head.length, MSG_NOSIGNAL) >= 0) return true;
        if (errno == EINTR && !passed(deadline)) continue;
        if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;
        const bool closed = never_arrived(errno);
        if (closed && reply_waits(socket)) return true;
        const bool again = closed && !fresh;
        connection.drop();
        if (!again) return false;
        fresh = true;
    }
}

// The length of the message, which may be more than there is room for.
ssize_t receive(int socket) {
    while (look.goes_on()) {
        const ssize_t received = recv(socket, &answer, sizeof answer, MSG_TRUNC | MSG_DONTWAIT);
        if (received >= 0 || errno != EAGAIN) return received;
        sched_yield();  // to the daemon, where it waits for this very processor
    }
    return recv(socket, &answer, sizeof answer, MSG_TRUNC);
}

// Receives the reply into `answer`. False with errno set, and the connection is gone then: whatever comes
// late must not answer the next question.
bool receive_reply(Deadline deadline) {
    // An end that left the request unread is reported before the words that came before it, and once.
    bool reset = false;
    look.begin();
    while (connection.bound(time_left(deadline))) {
        const ssize_t received = receive(connection.socket());
        if (received > 0) {
            look.end();
            const auto size = static_cast<size_t>(received);
            answered = std::min(size, sizeof answer);
            if (size == answered && well_formed(answer.head, size)) return true;
            errno = EPROTO;
        } else if (received == 0) {
            errno = ECONNRESET;
        } else if ((errno == EINTR && !passed(deadline)) ||
                   (errno == ECONNRESET && !std::exchange(reset, true))) {
            continue;
        } else if (errno == EAGAIN || errno == EINTR) {
            errno = ETIMEDOUT;
        }
        break;
    }
    connection.drop();
    return false;
}

void write_request(uint32_t context, int32_t request_type, uint32_t operation, const void* record,
                   uint32_t length) {
    RequestHead& head = request.head;
    head.request_type = static_cast<uint32_t>(request_type);
    head.operation = operation;
    head.session = security_cmi_session_id;
    head.context = context;
    head.length = length;
    const char* user_name = security_cmi_username != nullptr ? security_cmi_username : "";
    const size_t name_length = strnlen(user_name, sizeof head.user_name - 1);
    memset(head.user_name, 0, sizeof head.user_name);
    memcpy(head.user_name, user_name, name_length);
    if (length != 0) memcpy(request.record, record, length);
}

int32_t exchange(int32_t request_type, uint32_t operation, const void* record, uint32_t length) {
    if (length > SECURITY_CMI_MAX_RECORD) {
        errno = EMSGSIZE;
        return -1;
    }
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context < 1) throw std::bad_alloc();  // over the platform's configuration
    connection.enter(static_cast<uint32_t>(context));
    write_request(static_cast<uint32_t>(context), request_type, operation, record, length);
    const Deadline deadline = request_deadline();
    if (!send_request(deadline) || !receive_reply(deadline)) return -1;
    const uint32_t status = answer.head.status;
    if (status == SECURITY_ERR_BUSY) connection.drop();  // the daemon does so, but perhaps not yet
    if (status == SECURITY_OK && reads_to_change(request.head.request_type, request.head.operation))
        list_reads.remember(request.head.request_type, listed_user(), connection.number());
    if (status <= INT32_MAX) return static_cast<int32_t>(status);
    errno = EPROTO;  // no status of a daemon: it would pass for a failure of the channel
    return -1;
}

// A block of the reply's record, or null where it has none of at least this length. False when memory ran
// out.
bool hand_over(void** reply, uint32_t* length, uint32_t least) {
    *length = answer.head.length;
    if (*length < least) *length = 0;
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
        if (status >= 0 && reply != nullptr && !hand_over(reply, length, request_length)) status = -1;
    } catch (const std::bad_alloc&) {  // over the socket's name
        errno = ENOMEM;
    }
    // Both carry secrets, replies that are refused as well.
    if (request_length <= sizeof request.record) explicit_bzero(request.record, request_length);
    explicit_bzero(&answer, std::exchange(answered, 0));
    return status;
}

int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void**, uint32_t* length,
                      uint32_t connection) {
    return security_cmi(request_type, operation, request, nullptr, length, connection);
}
