#include "platform/channel/server.h"

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
#include <list>
#include <new>

#include "platform/channel/closer.h"
#include "platform/channel/frame.h"
#include "platform/log.h"
#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillsecurity/status.h"

namespace quill {
namespace {

constexpr int kBacklog = 128;
constexpr size_t kMaxClients = 900;
constexpr size_t kKeptForAdministrators = 100;
constexpr size_t kKeptForRoot = 20;
constexpr size_t kMaxOfOneUser = 100;
constexpr size_t kOwnFiles = 64;  // descriptors that the daemon may need beside its clients'
constexpr timeval kSettleDelay{0, 500000};
constexpr timeval kAcceptPause{0, 100000};
constexpr timeval kLogPause{0, 100000};
constexpr timeval kFirstRequestTime{10, 0};

Places::Limits limits() {
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlim_t taken = kOwnFiles + kKeptForAdministrators;
    const rlim_t left = files.rlim_cur <= taken ? 0 : files.rlim_cur - taken;
    return {static_cast<size_t>(std::min<rlim_t>(left, kMaxClients)) + kKeptForAdministrators,
            kKeptForAdministrators, kKeptForRoot, kMaxOfOneUser};
}

sigset_t own_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&signals, number);
    return signals;
}

// What a client says of itself, as it may stand in a line of the log.
std::string user_name(const RequestHeader& head) {
    return log_safe({head.user_name, strnlen(head.user_name, sizeof head.user_name)});
}

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

// The buffer of a request; the reply is sent from it too, with the same record.
struct Message {
    alignas(16) char unused[4]{};  // so that the record stands where any type may
    RequestHeader head{};
    unsigned char record[SECURITY_CMI_MAX_RECORD]{};
};
static_assert(offsetof(Message, record) % alignof(max_align_t) == 0);

struct Server::Loop {
    struct Client {
        Loop& loop;
        int socket = -1;
        Peer peer{};
        ConnectionState state{};
        Places::Place place{};
        bool has_spoken = false;
        Event readable{};
        std::list<Client>::iterator self{};

        explicit Client(Loop& owner) : loop(owner) {}
        ~Client() {
            readable.reset();
            if (socket >= 0) loop.closer.close(socket);
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
    };

    Settings settings;
    std::unique_ptr<event_base, decltype(&event_base_free)> base{event_base_new(), event_base_free};
    int listener = -1;
    std::string path;
    struct stat bound {};  // the file that listen() made there
    Event acceptable, resume, settle, log_work, terminate, interrupt, dump;
    Closer closer{base.get()};
    Places places{limits()};
    std::list<Client> clients;
    Message message;

    explicit Loop(Settings given) : settings(std::move(given)) {}
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void watch_signals();
    void watch_log();
    bool admit_client();
    void accept_client();
    static void on_client(evutil_socket_t socket, short what, void* client);
    bool serve(Client& client);
    Answer answer(Client& client, size_t size);
    void log_refusal(const Peer& peer, size_t size, uint32_t status);
    bool reply(int socket, const Answer& answer);
    void settle_soon();

    // Nothing may be thrown through libevent, which is C.
    template <class Call>
    bool guarded(Call call) {
        try {
            return call();
        } catch (const std::exception& failure) {
            if (client_log().has_room(0, true)) syslog(LOG_ERR, "serving failed: %s", failure.what());
            explicit_bzero(&message, sizeof message);
            return false;
        }
    }

    Event make(evutil_socket_t descriptor, short what, event_callback_fn callback, void* argument) {
        return make_event(base.get(), descriptor, what, callback, argument);
    }
};

Server::Loop::~Loop() {
    clients.clear();
    on_log_work({});
    for (Event* held : {&acceptable, &resume, &settle, &log_work, &terminate, &interrupt, &dump})
        held->reset();
    if (listener < 0) return;
    closer.close(listener);
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
    for (const Event* signal : {&terminate, &interrupt, &dump}) add_event(*signal);
    const sigset_t held = own_signals();
    sigprocmask(SIG_UNBLOCK, &held, nullptr);
}

void Server::Loop::watch_log() {
    log_work = make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            if (!tend_log()) event_add(static_cast<Loop*>(argument)->log_work.get(), &kLogPause);
        },
        this);
    on_log_work([this] {
        if (event_pending(log_work.get(), EV_TIMEOUT, nullptr) == 0) event_add(log_work.get(), &kLogPause);
    });
}

// False where nobody can be let in just now.
bool Server::Loop::admit_client() {
    if (closer.is_full()) return false;
    std::list<Client> arrived;
    Client& client = arrived.emplace_front(*this);
    client.self = arrived.begin();
    client.socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client.socket < 0) {
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return true;
        if (client_log().has_room(0, true)) syslog(LOG_ERR, "a client cannot be accepted: %m");
        return false;
    }
    client.peer = identify(client.socket, settings.administrators);
    const auto& [known, administrator, uid, pid] = client.peer;
    if (!known && client_log().has_room(uid))
        syslog(LOG_ERR, "a client's credentials cannot be had: %m; its requests are refused");
    client.place = places.take(client.peer);
    if (!client.place) {
        if (client_log().has_room(uid))
            syslog(LOG_WARNING, "too many clients; one of uid %u, pid %d is turned away", uid, pid);
        reply(client.socket, {SECURITY_ERR_BUSY, 0, false});
        return true;
    }
    client.readable = make(client.socket, EV_READ | EV_PERSIST, on_client, &client);
    event_base_update_cache_time(base.get());  // a request may have taken long
    add_event(client.readable, &kFirstRequestTime);
    clients.splice(clients.begin(), arrived);
    return true;
}

void Server::Loop::on_client(evutil_socket_t, short what, void* argument) {
    auto& client = *static_cast<Client*>(argument);
    Loop& loop = client.loop;
    const bool readable = (what & EV_READ) != 0;  // else its time for the first request is up
    if (!readable || !loop.guarded([&] { return loop.serve(client); })) loop.clients.erase(client.self);
}

void Server::Loop::accept_client() {
    if (guarded([this] { return admit_client(); })) return;
    // Trying again at once would only burn the processor.
    if (event_add(resume.get(), &kAcceptPause) == 0) event_del(acceptable.get());
}

Answer Server::Loop::answer(Client& client, size_t size) {
    RequestHeader& head = message.head;
    if (!well_formed(head, size)) return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    // Checked before anything else: the names in a request of another context are those of other users.
    if (head.context != settings.context) return {SECURITY_ERR_CONTEXT, 0, false};
    if (memchr(head.user_name, '\0', sizeof head.user_name) == nullptr)
        return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    Request request{head.request_type, head.operation, head.session,
                    head.user_name,    message.record, head.length};
    return settings.answer(client.peer, client.state, request);
}

void Server::Loop::log_refusal(const Peer& peer, size_t size, uint32_t status) {
    const RequestHeader& head = message.head;
    syslog(LOG_WARNING,
           "request type %u, operation %u, %zu bytes from uid %u, pid %d (for '%s', session %u) refused: %s",
           static_cast<uint32_t>(head.request_type), static_cast<uint32_t>(head.operation), size, peer.uid,
           peer.pid, user_name(head).c_str(), static_cast<uint32_t>(head.session), syserr2str(status));
}

bool Server::Loop::reply(int socket, const Answer& answer) {
    ReplyHeader head;
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
    const ssize_t received = closer.receive(client.socket, &message.head, kRoom);
    if (received < 0 && errno == EBADMSG) {
        if (client_log().has_room(client.peer.uid))
            syslog(LOG_WARNING, "uid %u, pid %d passes files, which nobody takes", client.peer.uid,
                   client.peer.pid);
        return false;
    }
    if (received < 0) return errno == EAGAIN || errno == EINTR;
    if (received == 0) return false;  // or a message of no bytes, which looks the same
    if (!client.has_spoken && event_remove_timer(client.readable.get()) != 0) return false;
    client.has_spoken = true;

    const auto size = static_cast<size_t>(received);  // more than there is room for where it was cut
    const Answer given = size <= kRoom ? answer(client, size) : Answer{SECURITY_ERR_REQUEST_FRAME, 0, false};
    // What the answering function refused, it has logged.
    const bool ours = given.status == SECURITY_ERR_REQUEST_FRAME || given.status == SECURITY_ERR_CONTEXT;
    if (ours && client_log().has_room(client.peer.uid)) log_refusal(client.peer, size, given.status);
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
    loop.closer.protect(loop.listener);
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
    add_event(loop.acceptable);
    loop.watch_log();
    loop.watch_signals();
    return true;
}

event_base* Server::loop() const { return loop_->base.get(); }

bool Server::run() {
    const bool served = event_base_dispatch(loop_->base.get()) >= 0;
    if (!served) syslog(LOG_CRIT, "the event loop failed: %m");
    hold_signals();
    return served;
}

void Server::hold_signals() {
    const sigset_t held = own_signals();
    sigprocmask(SIG_BLOCK, &held, nullptr);
}

}  // namespace quill
