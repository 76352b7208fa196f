#include "platform/channel/server.h"

#include <event2/event.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <list>
#include <new>
#include <vector>

#include "platform/channel/frame.h"
#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillsecurity/status.h"

namespace quill {
namespace {

constexpr int kBacklog = 128;
constexpr size_t kMaxClients = 900;
constexpr size_t kKeptForAdministrators = 100;
constexpr ptrdiff_t kMaxOfOneUser = 100;
constexpr size_t kOwnFiles = 64;  // descriptors that the daemon may need beside its clients'
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

bool is_refusal(uint32_t status) {
    return status >= SECURITY_ERR_REQUEST_FRAME && status <= SECURITY_ERR_NOT_PERMITTED;
}

// How many clients may be served beside those of administrators.
size_t count_places() {
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlim_t taken = kOwnFiles + kKeptForAdministrators;
    if (files.rlim_cur <= taken) return 0;
    return static_cast<size_t>(std::min<rlim_t>(files.rlim_cur - taken, kMaxClients));
}

// What clients cause is logged so many lines a second at the most: whoever sends rubbish must not fill the
// log.
class ClientLog {
 public:
    // Whether one more line may be written now.
    bool has_room() {
        const time_t now = time(nullptr);
        if (now != second_) {
            if (lines_ > kLines) syslog(LOG_WARNING, "%u more refusals", lines_ - kLines);
            second_ = now;
            lines_ = 0;
        }
        return ++lines_ <= kLines;
    }

 private:
    static constexpr uint32_t kLines = 20;
    time_t second_ = 0;
    uint32_t lines_ = 0;
};

// What a client says of itself, as it may stand in a line of the log.
std::string user_name(const RequestHead& head) {
    return log_safe({head.user_name, strnlen(head.user_name, sizeof head.user_name)});
}

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

Peer identify(int socket, gid_t administrators) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || size != sizeof credentials)
        return {};
    const bool member =
        administrators != 0 && (credentials.gid == administrators || in_group(socket, administrators));
    return {true, credentials.uid == 0 || member, credentials.uid, credentials.pid};
}

// What is received, and sent back from around the same record.
struct Message {
    alignas(16) char unused[8]{};  // so that the record stands where any type may
    RequestHead head{};
    unsigned char record[SECURITY_CMI_MAX_RECORD]{};
};
static_assert(offsetof(Message, record) % alignof(max_align_t) == 0);

struct Server::Loop {
    struct Client {
        Loop& loop;
        int socket = -1;
        Peer peer{};
        Event readable{};
        std::list<Client>::iterator self{};

        explicit Client(Loop& owner) : loop(owner) {}
        ~Client() {
            readable.reset();
            if (socket >= 0) close(socket);
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
    };

    Settings settings;
    std::unique_ptr<event_base, decltype(&event_base_free)> base{event_base_new(), event_base_free};
    int listener = -1;
    std::string path;
    struct stat bound {};  // the file that listen() made there
    Event acceptable, resume, settle, terminate, interrupt, dump;
    std::list<Client> clients;
    const size_t places = count_places();
    ClientLog log;
    Message message;

    explicit Loop(Settings given) : settings(std::move(given)) {}
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void watch_signals();
    bool admit_client();
    void accept_client();
    bool has_room_for(const Peer& peer) const;
    bool serve(Client& client);
    Answer answer(const Peer& peer, size_t size);
    void log_refusal(const Peer& peer, size_t size, uint32_t status);
    bool reply(int socket, const Answer& answer);
    void settle_soon();

    // Nothing may be thrown through libevent, which is C.
    template <class Call>
    bool guarded(Call call) {
        try {
            return call();
        } catch (const std::exception& failure) {
            if (log.has_room()) syslog(LOG_ERR, "serving failed: %s", failure.what());
            explicit_bzero(&message, sizeof message);
            return false;
        }
    }

    static void add(const Event& event) {
        if (event_add(event.get(), nullptr) != 0) throw std::bad_alloc();
    }

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
    // Its successor may have taken the name over.
    struct stat named;
    if (lstat(path.c_str(), &named) == 0 && same_file(named, bound)) unlink(path.c_str());
}

void Server::Loop::watch_signals() {
    const auto stop = [](evutil_socket_t, short, void* loop) {
        event_base_loopbreak(static_cast<Loop*>(loop)->base.get());
    };
    terminate = make(SIGTERM, EV_SIGNAL | EV_PERSIST, stop, this);
    interrupt = make(SIGINT, EV_SIGNAL | EV_PERSIST, stop, this);
    dump = make(
        SIGUSR1, EV_SIGNAL | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) {
            auto& loop = *static_cast<Loop*>(argument);
            loop.guarded([&] {
                loop.settings.dump();
                return true;
            });
        },
        this);
    for (const Event* signal : {&terminate, &interrupt, &dump}) add(*signal);
}

// The last places are kept for those who may repair things, and nobody else has all of the others.
bool Server::Loop::has_room_for(const Peer& peer) const {
    if (peer.administrator) return clients.size() < places + kKeptForAdministrators;
    const auto same_user = [&](const Client& c) { return !c.peer.administrator && c.peer.uid == peer.uid; };
    return clients.size() < places && std::ranges::count_if(clients, same_user) < kMaxOfOneUser;
}

// False where nobody can be let in just now.
bool Server::Loop::admit_client() {
    std::list<Client> arrived;
    Client& client = arrived.emplace_front(*this);
    client.self = arrived.begin();
    client.socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client.socket < 0) {
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return true;
        if (log.has_room()) syslog(LOG_ERR, "a client cannot be accepted: %m");
        return false;
    }
    client.peer = identify(client.socket, settings.administrators);
    if (!client.peer.known && log.has_room())
        syslog(LOG_ERR, "a client's credentials cannot be had: %m; its requests are refused");
    if (!has_room_for(client.peer)) {
        if (log.has_room())
            syslog(LOG_WARNING, "too many clients; one of uid %u, pid %d is turned away", client.peer.uid,
                   client.peer.pid);
        reply(client.socket, {SECURITY_ERR_BUSY, 0, false});
        return true;
    }
    client.readable = make(
        client.socket, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) {
            auto& readable = *static_cast<Client*>(argument);
            Loop& loop = readable.loop;
            if (!loop.guarded([&] { return loop.serve(readable); })) loop.clients.erase(readable.self);
        },
        &client);
    add(client.readable);
    clients.splice(clients.begin(), arrived);
    return true;
}

void Server::Loop::accept_client() {
    if (guarded([this] { return admit_client(); })) return;
    // Trying again at once would only burn the processor.
    if (event_add(resume.get(), &kAcceptPause) == 0) event_del(acceptable.get());
}

Answer Server::Loop::answer(const Peer& peer, size_t size) {
    RequestHead& head = message.head;
    if (!well_formed(head, size) || memchr(head.user_name, '\0', sizeof head.user_name) == nullptr)
        return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    Request request{head.request_type, head.operation, head.session,
                    head.user_name,    message.record, head.length};
    return settings.answer(peer, request);
}

void Server::Loop::log_refusal(const Peer& peer, size_t size, uint32_t status) {
    const RequestHead& head = message.head;
    syslog(LOG_WARNING,
           "request type %u, operation %u, %zu bytes from uid %u, pid %d (for '%s', session %u) refused: %s",
           static_cast<uint32_t>(head.request_type), static_cast<uint32_t>(head.operation), size, peer.uid,
           peer.pid, user_name(head).c_str(), static_cast<uint32_t>(head.session), syserr2str(status));
}

bool Server::Loop::reply(int socket, const Answer& answer) {
    ReplyHead head;
    head.status = answer.status;
    head.length = answer.length;
    // Right before the record, over the end of the request's head, which has served.
    unsigned char* start =
        reinterpret_cast<unsigned char*>(&message) + offsetof(Message, record) - sizeof head;
    memcpy(start, &head, sizeof head);
    // A client that does not read its replies is not waited for.
    return send(socket, start, sizeof head + answer.length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

void Server::Loop::settle_soon() {
    if (event_pending(settle.get(), EV_TIMEOUT, nullptr) == 0) event_add(settle.get(), &kSettleDelay);
}

// One request of a client; false when the client is done.
bool Server::Loop::serve(Client& client) {
    constexpr size_t kRoom = sizeof message.head + sizeof message.record;
    const ssize_t received = recv(client.socket, &message.head, kRoom, MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0) return errno == EAGAIN || errno == EINTR;
    if (received == 0) return false;  // or a message of no bytes, which looks the same

    const auto size = static_cast<size_t>(received);  // more than there is room for where it was cut
    const Answer given =
        size <= kRoom ? answer(client.peer, size) : Answer{SECURITY_ERR_REQUEST_FRAME, 0, false};
    if (is_refusal(given.status) && log.has_room()) log_refusal(client.peer, size, given.status);
    const bool sent = reply(client.socket, given);
    // Records carry secrets.
    explicit_bzero(&message.head, std::min(kRoom, std::max(size, sizeof message.head + given.length)));
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
        lstat(address.sun_path, &loop.bound) != 0 || chmod(address.sun_path, 0666) != 0 ||
        ::listen(loop.listener, kBacklog) != 0)
        return false;

    loop.acceptable = loop.make(
        loop.listener, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) { static_cast<Loop*>(argument)->accept_client(); }, &loop);
    loop.resume = loop.make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            auto& paused = *static_cast<Loop*>(argument);
            if (event_add(paused.acceptable.get(), nullptr) != 0)
                event_add(paused.resume.get(), &kAcceptPause);
        },
        &loop);
    loop.settle = loop.make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            auto& settling = *static_cast<Loop*>(argument);
            if (!settling.guarded(settling.settings.settle)) settling.settle_soon();
        },
        &loop);
    Loop::add(loop.acceptable);
    loop.watch_signals();
    return true;
}

event_base* Server::loop() const { return loop_->base.get(); }

void Server::run() { event_base_dispatch(loop_->base.get()); }

}  // namespace quill
