#include "platform/channel/server.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <list>
#include <new>

#include "base/text_field.h"
#include "platform/channel/closer.h"
#include "platform/channel/frame.h"
#include "platform/listener.h"
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
constexpr timeval kCheckpointDelay{0, 500000};
constexpr timeval kLogPause{0, 100000};
constexpr timeval kFirstRequestTime{10, 0};
constexpr char kServing[] = "serving";

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

event_base* make_loop() {
    event_base* base = event_base_new();
    if (base == nullptr) throw std::bad_alloc();
    return base;
}

// The name that a client gives, for the log.
std::string user_name(const RequestHeader& header) {
    return log_safe({header.user_name, strnlen(header.user_name, sizeof header.user_name)});
}

}  // namespace

// The buffer of a request; the reply is sent from it too, with the same record.
struct Message {
    alignas(16) char unused[4]{};  // aligns the record for any type
    RequestHeader header{};
    unsigned char record[SECURITY_CMI_MAX_RECORD]{};

    // Bytes of the largest message.
    static constexpr size_t kRoom = sizeof header + sizeof record;
};
static_assert(offsetof(Message, record) % alignof(max_align_t) == 0);

struct Server::Loop {
    struct Client {
        Loop& loop;
        int socket = -1;
        Peer peer{};
        ConnectionState state{};
        Places::Place place{};
        bool has_asked = false;
        Event readable{};
        std::list<Client>::iterator self{};

        explicit Client(Loop& owner) : loop(owner) {}
        ~Client() {
            readable.reset();
            if (socket >= 0) loop.closer.close(socket);
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

        void on_event(short what);
    };

    explicit Loop(Settings given) : settings(std::move(given)) {}
    ~Loop() { on_log_work({}); }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    bool admit_client();
    bool serve(Client& client);
    Answer answer(Client& client, size_t size);
    void log_refusal(const Peer& peer, size_t size, uint32_t status);
    bool reply(int socket, const Answer& answer);

    void watch_signals();
    void stop() { event_base_loopbreak(base.get()); }
    void dump();
    void checkpoint();
    void write_log();

    // Each is destroyed before those above it, which it uses.
    Settings settings;
    std::unique_ptr<event_base, decltype(&event_base_free)> base{make_loop(), event_base_free};
    Closer closer{base.get()};
    Places places{limits()};
    Listener listener{base.get(), closer,
                      [this] { return guarded(kServing, [this] { return admit_client(); }); }};
    Timer checkpoint_timer = make_timer<&Loop::checkpoint>(base.get(), kCheckpointDelay, *this);
    Timer log_timer = make_timer<&Loop::write_log>(base.get(), kLogPause, *this);
    Event terminate, interrupt, user_signal;
    std::list<Client> clients;
    Message message;
};

void Server::Loop::watch_signals() {
    terminate = make_event<&Loop::stop>(base.get(), SIGTERM, EV_SIGNAL | EV_PERSIST, *this);
    interrupt = make_event<&Loop::stop>(base.get(), SIGINT, EV_SIGNAL | EV_PERSIST, *this);
    user_signal = make_event<&Loop::dump>(base.get(), SIGUSR1, EV_SIGNAL | EV_PERSIST, *this);
    for (const Event* signal : {&terminate, &interrupt, &user_signal}) add_event(*signal);
    const sigset_t held = own_signals();
    sigprocmask(SIG_UNBLOCK, &held, nullptr);
}

void Server::Loop::dump() {
    guarded(kServing, [this] {
        settings.dump();
        return true;
    });
}

void Server::Loop::checkpoint() {
    if (!guarded(kServing, settings.checkpoint)) checkpoint_timer.start();
}

void Server::Loop::write_log() {
    if (!tend_log()) log_timer.start();
}

// Returns false if no connection can be accepted now.
bool Server::Loop::admit_client() {
    // Allocated first: a connection that was accepted without memory for it would be lost.
    std::list<Client> arrived;
    Client& client = arrived.emplace_front(*this);
    client.self = arrived.begin();
    client.socket = listener.accept();
    if (client.socket < 0) {
        if (!Listener::is_shortage(errno)) return true;
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
    client.readable = make_event<&Client::on_event>(base.get(), client.socket, EV_READ | EV_PERSIST, client);
    event_base_update_cache_time(base.get());  // a request may have taken long
    add_event(client.readable, &kFirstRequestTime);
    clients.splice(clients.begin(), arrived);
    return true;
}

// Called when a message has arrived, or the time for the first request is over.
void Server::Loop::Client::on_event(short what) {
    const bool timed_out = (what & EV_READ) == 0;
    if (timed_out || !guarded(kServing, [this] { return loop.serve(*this); })) loop.clients.erase(self);
}

Answer Server::Loop::answer(Client& client, size_t size) {
    RequestHeader& header = message.header;
    if (size > Message::kRoom || !well_formed(header, size)) return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    // Checked before anything else: the names in a request of another context are those of other users.
    if (header.context != settings.context) return {SECURITY_ERR_CONTEXT, 0, false};
    if (!terminated(header.user_name)) return {SECURITY_ERR_REQUEST_FRAME, 0, false};
    Request request{header.request_type, header.operation, header.session,
                    header.user_name,    message.record,   header.length};
    return settings.handle(client.peer, client.state, request);
}

void Server::Loop::log_refusal(const Peer& peer, size_t size, uint32_t status) {
    const RequestHeader& header = message.header;
    syslog(LOG_WARNING,
           "request type %u, operation %u, %zu bytes from uid %u, pid %d (for '%s', session %u) refused: %s",
           static_cast<uint32_t>(header.request_type), static_cast<uint32_t>(header.operation), size,
           peer.uid, peer.pid, user_name(header).c_str(), static_cast<uint32_t>(header.session),
           syserr2str(status));
}

bool Server::Loop::reply(int socket, const Answer& answer) {
    ReplyHeader header;
    header.status = answer.status;
    header.length = answer.length;
    // Right before the record, over the end of the request's header, which is not needed any more.
    unsigned char* start =
        reinterpret_cast<unsigned char*>(&message) + offsetof(Message, record) - sizeof header;
    memcpy(start, &header, sizeof header);
    // Does not wait: a client that does not read its replies is disconnected.
    return send(socket, start, sizeof header + answer.length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// Serves one request. Returns false if the connection is to be closed.
bool Server::Loop::serve(Client& client) {
    const ssize_t received = closer.receive(client.socket, &message.header, Message::kRoom);
    if (received < 0 && errno == EBADMSG) {
        if (client_log().has_room(client.peer.uid))
            syslog(LOG_WARNING, "uid %u, pid %d passes files, which nobody takes", client.peer.uid,
                   client.peer.pid);
        return false;
    }
    if (received < 0) return errno == EAGAIN || errno == EINTR;
    if (received == 0) return false;  // the end of the connection, or an empty message, which looks the same
    if (!client.has_asked && event_remove_timer(client.readable.get()) != 0) return false;
    client.has_asked = true;

    // Records contain secrets: wipes the bytes that were used, and all of them after an exception.
    struct Wipe {  // NOLINT(cppcoreguidelines-special-member-functions)
        Message& message;
        size_t used = Message::kRoom;
        ~Wipe() { explicit_bzero(&message.header, used); }
    } wipe{message};
    const auto size = static_cast<size_t>(received);  // of the message; `message` has at most kRoom of it
    const Answer given = answer(client, size);
    // The request handler logs its own refusals.
    const bool ours = given.status == SECURITY_ERR_REQUEST_FRAME || given.status == SECURITY_ERR_CONTEXT;
    if (ours && client_log().has_room(client.peer.uid)) log_refusal(client.peer, size, given.status);
    const bool sent = reply(client.socket, given);
    wipe.used = std::min(Message::kRoom, std::max(size, sizeof message.header + given.length));
    if (given.changed) checkpoint_timer.start();
    return sent;
}

Server::Server(Settings settings) : loop_(std::make_unique<Loop>(std::move(settings))) {}

Server::~Server() = default;

bool Server::listen() {
    if (!loop_->listener.listen(kRequestSocket, kBacklog)) return false;
    on_log_work([loop = loop_.get()] { loop->log_timer.start(); });
    loop_->watch_signals();
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
