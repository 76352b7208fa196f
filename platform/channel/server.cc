#include "platform/channel/server.h"

#include <event2/event.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <list>
#include <new>
#include <vector>

#include "platform/channel/frame.h"
#include "quillplatform/pss.h"
#include "quillsecurity/status.h"

namespace quill {
namespace {

constexpr int kBacklog = 128;
constexpr size_t kMaxClients = 900;
constexpr size_t kKeptForAdministrators = 100;
constexpr timeval kSettleDelay{0, 500000};
constexpr timeval kAcceptPause{0, 100000};

struct EventFree {
    void operator()(event* event) const { event_free(event); }
};
using Event = std::unique_ptr<event, EventFree>;

bool in_group(int socket, gid_t group) {
    std::vector<gid_t> groups(32);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        if (errno != ERANGE) return false;
        groups.resize(size / sizeof(gid_t));  // the kernel has said how many there are
        if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
    }
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

Peer identify(int socket, gid_t administrators) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || size != sizeof credentials) {
        syslog(LOG_ERR, "a client's credentials cannot be had: %m; its requests are refused");
        return {};
    }
    const bool member =
        administrators != 0 && (credentials.gid == administrators || in_group(socket, administrators));
    return {true, credentials.uid == 0 || member, credentials.uid, credentials.pid};
}

bool is_refusal(uint32_t status) {
    return status >= SECURITY_ERR_REQUEST_FRAME && status <= SECURITY_ERR_NOT_PERMITTED;
}

// Lines about refused requests, so many a second at the most: whoever sends rubbish must not fill the log.
class RefusalLog {
 public:
    void add(const Peer& peer, const RequestHead& head, size_t received, uint32_t status) {
        const time_t now = time(nullptr);
        if (now != second_) {
            if (lines_ > kLines) syslog(LOG_WARNING, "%u more requests refused", lines_ - kLines);
            second_ = now;
            lines_ = 0;
        }
        if (++lines_ > kLines) return;
        syslog(LOG_WARNING, "request type %u, operation %u, %zu bytes from uid %u, pid %d refused: %s",
               static_cast<uint32_t>(head.request_type), static_cast<uint32_t>(head.operation), received,
               peer.uid, peer.pid, syserr2str(status));
    }

 private:
    static constexpr uint32_t kLines = 20;
    time_t second_ = 0;
    uint32_t lines_ = 0;
};

}  // namespace

struct Server::Loop {
    struct Client {
        Loop& loop;
        int socket;
        Peer peer;
        Event readable{};
        std::list<Client>::iterator self{};

        Client(Loop& owner, int descriptor, const Peer& who) : loop(owner), socket(descriptor), peer(who) {}
        ~Client() {
            readable.reset();
            close(socket);
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
    };

    Settings settings;
    std::unique_ptr<event_base, decltype(&event_base_free)> base{event_base_new(), event_base_free};
    int listener = -1;
    std::string path;
    Event acceptable, resume, settle, terminate, interrupt, dump;
    std::list<Client> clients;
    RefusalLog refusals;
    alignas(16) unsigned char record[SECURITY_CMI_MAX_RECORD];

    explicit Loop(Settings given) : settings(std::move(given)) {}
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void watch_signals();
    void accept_client();
    bool has_room_for(const Peer& peer) const;
    bool serve(Client& client);
    Answer answer(const Client& client, RequestHead& head, size_t received, bool whole);
    bool reply(int socket, const Answer& answer);
    void settle_soon();

    Event make(evutil_socket_t descriptor, short what, event_callback_fn callback, void* argument) {
        Event made(event_new(base.get(), descriptor, what, callback, argument));
        if (made == nullptr) throw std::bad_alloc();
        return made;
    }
};

Server::Loop::~Loop() {
    clients.clear();
    for (Event* held : {&acceptable, &resume, &settle, &terminate, &interrupt, &dump}) held->reset();
    if (listener < 0) return;
    close(listener);
    unlink(path.c_str());
}

void Server::Loop::watch_signals() {
    const auto stop = [](evutil_socket_t, short, void* loop) {
        event_base_loopbreak(static_cast<Loop*>(loop)->base.get());
    };
    terminate = make(SIGTERM, EV_SIGNAL | EV_PERSIST, stop, this);
    interrupt = make(SIGINT, EV_SIGNAL | EV_PERSIST, stop, this);
    dump = make(
        SIGUSR1, EV_SIGNAL | EV_PERSIST,
        [](evutil_socket_t, short, void* loop) { static_cast<Loop*>(loop)->settings.dump(); }, this);
    for (Event* signal : {&terminate, &interrupt, &dump}) event_add(signal->get(), nullptr);
}

// The last places are kept for those who may repair things.
bool Server::Loop::has_room_for(const Peer& peer) const {
    return clients.size() < kMaxClients + (peer.administrator ? kKeptForAdministrators : 0);
}

void Server::Loop::accept_client() {
    const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
        // Nobody can be let in just now; trying again at once would only burn the processor.
        syslog(LOG_ERR, "a client cannot be accepted: %m");
        event_del(acceptable.get());
        event_add(resume.get(), &kAcceptPause);
        return;
    }
    const Peer peer = identify(socket, settings.administrators);
    if (!has_room_for(peer)) {
        syslog(LOG_WARNING, "too many clients; one of uid %u, pid %d is turned away", peer.uid, peer.pid);
        close(socket);
        return;
    }
    Client& client = clients.emplace_front(*this, socket, peer);
    client.self = clients.begin();
    client.readable = make(
        socket, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) {
            auto& readable = *static_cast<Client*>(argument);
            if (!readable.loop.serve(readable)) readable.loop.clients.erase(readable.self);
        },
        &client);
    event_add(client.readable.get(), nullptr);
}

Answer Server::Loop::answer(const Client& client, RequestHead& head, size_t received, bool whole) {
    const bool terminated = memchr(head.user_name, '\0', sizeof head.user_name) != nullptr;
    if (!whole || !well_formed(head, received) || !terminated) return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    Request request{head.request_type, head.operation, head.session, head.user_name, record, head.length};
    return settings.answer(client.peer, request);
}

bool Server::Loop::reply(int socket, const Answer& answer) {
    ReplyHead head;
    head.status = answer.status;
    head.length = answer.length;
    iovec parts[] = {{&head, sizeof head}, {record, answer.length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    // A client that does not read its replies is not waited for.
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

void Server::Loop::settle_soon() {
    if (event_pending(settle.get(), EV_TIMEOUT, nullptr) == 0) event_add(settle.get(), &kSettleDelay);
}

// One request of a client; false when the client is done.
bool Server::Loop::serve(Client& client) {
    RequestHead head;
    iovec parts[] = {{&head, sizeof head}, {record, sizeof record}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t received = recvmsg(client.socket, &message, MSG_DONTWAIT);
    if (received < 0) return errno == EAGAIN || errno == EINTR;
    if (received == 0) return false;

    const auto size = static_cast<size_t>(received);
    const Answer given = answer(client, head, size, (message.msg_flags & MSG_TRUNC) == 0);
    if (is_refusal(given.status)) refusals.add(client.peer, head, size, given.status);
    const bool sent = reply(client.socket, given);
    // Records carry secrets. What was received is a head longer than the record.
    explicit_bzero(record, std::min(sizeof record, std::max<size_t>(size, given.length)));
    if (given.changed) settle_soon();
    return sent;
}

Server::Server(Settings settings) : loop_(std::make_unique<Loop>(std::move(settings))) {
    if (loop_->base == nullptr) throw std::bad_alloc();
}

Server::~Server() = default;

bool Server::listen() {
    Loop& loop = *loop_;
    sockaddr_un address;
    if (!socket_address(address)) return false;
    loop.path = address.sun_path;
    if (unlink(address.sun_path) != 0 && errno != ENOENT) return false;
    loop.listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (loop.listener < 0) return false;
    // Everybody may ask; what each may do is decided by who they are.
    if (bind(loop.listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(address.sun_path, 0666) != 0 || ::listen(loop.listener, kBacklog) != 0)
        return false;

    loop.acceptable = loop.make(
        loop.listener, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) { static_cast<Loop*>(argument)->accept_client(); }, &loop);
    loop.resume = loop.make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            event_add(static_cast<Loop*>(argument)->acceptable.get(), nullptr);
        },
        &loop);
    loop.settle = loop.make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            auto& settling = *static_cast<Loop*>(argument);
            if (!settling.settings.settle()) settling.settle_soon();
        },
        &loop);
    event_add(loop.acceptable.get(), nullptr);
    loop.watch_signals();
    return true;
}

void Server::run() { event_base_dispatch(loop_->base.get()); }

}  // namespace quill
