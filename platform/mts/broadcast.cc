#include "platform/mts/broadcast.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <exception>
#include <list>
#include <map>
#include <new>
#include <string>
#include <utility>

#include "platform/channel/closer.h"
#include "platform/channel/peer.h"
#include "platform/log.h"
#include "platform/mts/message.h"

namespace quill {
namespace {

constexpr size_t kKept = 8192;
constexpr size_t kKeptBytes = 4UL * 1024 * 1024;
constexpr Places::Limits kListeners{.all = 64, .for_administrators = 64, .for_root = 16, .for_one_user = 16};
constexpr timeval kSubscriptionTime{10, 0};
constexpr int kBacklog = 32;
constexpr timeval kPause{0, 100000};  // before what failed for want of something is tried again

// Half of what a socket may hold, which is then just above one message of the greatest size: what a sleeping
// listener has been sent and not received is little beside what is kept for it.
constexpr int kSocketBuffer = 64 * 1024;
static_assert(static_cast<size_t>(kSocketBuffer) > (MTS_MAX_PAYLOAD + 4096) / 2);

struct Sent {
    uint32_t sap;
    MtsMessage message;

    // What it takes in memory, with what the heap adds.
    size_t bytes() const { return sizeof(Sent) + message.size() + 32; }
};

}  // namespace

struct Broadcast::Ring {
    struct Listener {
        Ring& ring;
        int socket = -1;
        Peer peer{};
        Places::Place place{};
        Event readable{}, writable{}, later{};
        bool subscribed = false;
        uint32_t sap = MTS_SAP_ALL;
        uint32_t opcode = MTS_ANY_OPCODE;
        uint64_t next = 0;  // the message that it has not been sent yet
        uint32_t lost = 0;  // messages that are no longer there for it
        std::list<Listener>::iterator self{};

        explicit Listener(Ring& owner) : ring(owner) {}
        ~Listener() {
            readable.reset();
            writable.reset();
            later.reset();
            if (socket >= 0) ring.closer.close(socket);
        }
        Listener(const Listener&) = delete;
        Listener& operator=(const Listener&) = delete;

        bool wants(const Sent& sent) const {
            return (sent.sap == MTS_SAP_ALL || sent.sap == sap) &&
                   (opcode == MTS_ANY_OPCODE || opcode == sent.message.opcode);
        }
        bool waits() const {
            return event_pending(writable.get(), EV_WRITE, nullptr) != 0 ||
                   event_pending(later.get(), EV_TIMEOUT, nullptr) != 0;
        }
        static void go_on(evutil_socket_t, short, void* argument);
        // These answer false when the listener is done.
        bool welcome(int error);
        bool subscribe();
        bool pump();
        bool send(const Sent& sent);
    };

    event_base* base;
    gid_t administrators;
    uint32_t context;
    uint32_t handle = 0;
    int listener = -1;
    std::string path;
    Event acceptable, resume;
    Closer closer;
    Places places{kListeners};
    std::deque<Sent> kept;
    size_t kept_bytes = 0;
    uint64_t first = 0;  // number of the oldest message that is kept; they are counted from 0
    std::list<Listener> listeners;
    std::map<uint32_t, std::function<void(const void*)>> services;

    Ring(event_base* loop, gid_t group, uint32_t own_context)
        : base(loop), administrators(group), context(own_context), closer(loop) {}
    ~Ring() {
        listeners.clear();
        acceptable.reset();
        resume.reset();
        quill_mts_close(handle);
        if (listener < 0) return;
        closer.close(listener);
        unlink(path.c_str());
    }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    bool admit_listener();
    void accept_listener();
    int refusal(Listener& listener);
    void carry(uint32_t to_sap, const MtsMessage& message);
    void drop_oldest();
    void pop_oldest();
    void forget();

    Event make(evutil_socket_t descriptor, short what, event_callback_fn callback, void* argument) const {
        return make_event(base, descriptor, what, callback, argument);
    }

    // Nothing may be thrown through libevent, which is C.
    template <class Call>
    bool guarded(Call call) {
        try {
            return call();
        } catch (const std::exception& failure) {
            if (client_log().has_room(0, true))
                syslog(LOG_ERR, "serving a listener failed: %s", failure.what());
            return false;
        }
    }
};

bool Broadcast::Ring::Listener::welcome(int error) {
    MtsWelcome frame;
    frame.error = static_cast<uint32_t>(error);
    return ::send(socket, &frame, sizeof frame, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof frame && error == 0;
}

// The one thing a listener says. Anything after it, the end of the connection as well, is its end.
bool Broadcast::Ring::Listener::subscribe() {
    MtsSubscription frame;
    const ssize_t received = ring.closer.receive(socket, &frame, sizeof frame);
    if (received < 0) return errno == EAGAIN || errno == EINTR;
    if (subscribed || received != sizeof frame || !ours(frame)) return false;
    if (frame.context != ring.context) {
        if (client_log().has_room(peer.uid))
            syslog(LOG_WARNING, "a listener of uid %u, pid %d is turned away: it runs in context %u",
                   peer.uid, peer.pid, static_cast<uint32_t>(frame.context));
        return welcome(EXDEV);
    }
    sap = frame.sap;
    opcode = frame.opcode;
    next = ring.first + ring.kept.size();
    subscribed = true;
    return event_remove_timer(readable.get()) == 0 && welcome(0);
}

bool Broadcast::Ring::Listener::send(const Sent& sent) {
    MtsHeader head;
    head.opcode = sent.message.opcode;
    head.lost = lost;
    head.length = sent.message.size();
    iovec parts[] = {{&head, sizeof head},
                     {const_cast<unsigned char*>(sent.message.payload()), sent.message.size()}};
    msghdr whole{};
    whole.msg_iov = parts;
    whole.msg_iovlen = 2;
    return sendmsg(socket, &whole, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// Sends what is there for it, as far as its socket takes it. That the system has no memory just now is
// nothing that a writable socket would end.
bool Broadcast::Ring::Listener::pump() {
    for (; next < ring.first + ring.kept.size(); ++next) {
        const Sent& sent = ring.kept[static_cast<size_t>(next - ring.first)];
        if (!wants(sent)) continue;
        if (!send(sent)) {
            const bool scarce = errno == ENOBUFS || errno == ENOMEM;
            if (errno != EAGAIN && !scarce) return false;
            add_event(scarce ? later : writable, scarce ? &kPause : nullptr);
            return true;
        }
        lost = 0;
    }
    return true;
}

void Broadcast::Ring::Listener::go_on(evutil_socket_t, short, void* argument) {
    auto& ready = *static_cast<Listener*>(argument);
    Ring& ring = ready.ring;
    if (!ring.guarded([&] { return ready.pump(); })) ring.listeners.erase(ready.self);
    ring.forget();
}

// Returns 0, or the errno with which a listener is turned away.
int Broadcast::Ring::refusal(Listener& arrived) {
    const Peer& peer = arrived.peer = identify(arrived.socket, administrators);
    if (peer.administrator) arrived.place = places.take(peer);
    if (arrived.place) return 0;
    if (client_log().has_room(peer.uid))
        syslog(LOG_WARNING, "a listener of uid %u, pid %d is turned away: %s", peer.uid, peer.pid,
               peer.administrator ? "there are too many" : "not an administrator");
    return peer.administrator ? EUSERS : EACCES;
}

// False where nobody can be let in just now.
bool Broadcast::Ring::admit_listener() {
    if (closer.is_full()) return false;
    std::list<Listener> arrived;
    Listener& added = arrived.emplace_front(*this);
    added.self = arrived.begin();
    const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) return errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM;
    added.socket = socket;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    if (!added.welcome(refusal(added))) return true;
    added.readable = make(
        socket, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short what, void* argument) {
            auto& spoken = *static_cast<Listener*>(argument);
            Ring& ring = spoken.ring;
            const bool readable = (what & EV_READ) != 0;  // else its time to subscribe is up
            if (!readable || !ring.guarded([&] { return spoken.subscribe(); }))
                ring.listeners.erase(spoken.self);
            ring.forget();
        },
        &added);
    added.writable = make(socket, EV_WRITE, Listener::go_on, &added);
    added.later = make(-1, 0, Listener::go_on, &added);
    event_base_update_cache_time(base);  // a request may have taken long
    add_event(added.readable, &kSubscriptionTime);
    listeners.splice(listeners.begin(), arrived);
    return true;
}

void Broadcast::Ring::accept_listener() {
    if (guarded([this] { return admit_listener(); })) return;
    // Trying again at once would only burn the processor.
    if (event_add(resume.get(), &kPause) == 0) event_del(acceptable.get());
}

void Broadcast::Ring::drop_oldest() {
    for (Listener& behind : listeners) {
        if (!behind.subscribed || behind.next > first) continue;
        if (behind.wants(kept.front())) ++behind.lost;
        behind.next = first + 1;
    }
    pop_oldest();
}

void Broadcast::Ring::pop_oldest() {
    kept_bytes -= kept.front().bytes();
    kept.pop_front();
    ++first;
}

// Drops what every listener has been sent.
void Broadcast::Ring::forget() {
    uint64_t needed = first + kept.size();
    for (const Listener& each : listeners)
        if (each.subscribed) needed = std::min(needed, each.next);
    while (first < needed) pop_oldest();
}

void Broadcast::Ring::carry(uint32_t to_sap, const MtsMessage& message) {
    kept.push_back({to_sap, message});
    kept_bytes += kept.back().bytes();
    while (kept.size() > kKept || kept_bytes > kKeptBytes) drop_oldest();
    for (auto at = listeners.begin(); at != listeners.end();) {
        Listener& each = *at++;
        if (each.subscribed && !each.waits() && !guarded([&] { return each.pump(); }))
            listeners.erase(each.self);
    }
    forget();
    // Last, since a service may send in its turn.
    const auto service = services.find(to_sap);
    if (service != services.end()) service->second(&message);
}

Broadcast::Broadcast(event_base* base, gid_t administrators, uint32_t own_context)
    : ring_(std::make_unique<Ring>(base, administrators, own_context)) {
    ring_->handle = quill_mts_attach(
        [](void* context, uint32_t sap, uint32_t opcode, const void* payload, uint32_t length) -> int32_t {
            try {
                static_cast<Ring*>(context)->carry(sap, MtsMessage(opcode, payload, length));
                return 0;
            } catch (const std::bad_alloc&) {
                return ENOMEM;
            }
        },
        ring_.get());
    if (ring_->handle == 0) throw std::bad_alloc();
}

Broadcast::~Broadcast() = default;

bool Broadcast::listen() {
    Ring& ring = *ring_;
    sockaddr_un address;
    if (!socket_address(address, kAnnouncementSocket)) return false;
    ring.path = address.sun_path;
    if (unlink(address.sun_path) != 0 && errno != ENOENT) return false;
    ring.listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (ring.listener < 0) return false;
    ring.closer.protect(ring.listener);
    // Everybody may knock; who is let in is decided by who they are.
    if (bind(ring.listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(address.sun_path, 0666) != 0 || ::listen(ring.listener, kBacklog) != 0)
        return false;
    ring.acceptable = ring.make(
        ring.listener, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* argument) { static_cast<Ring*>(argument)->accept_listener(); },
        &ring);
    ring.resume = ring.make(
        -1, 0,
        [](evutil_socket_t, short, void* argument) {
            auto& paused = *static_cast<Ring*>(argument);
            if (event_add(paused.acceptable.get(), nullptr) != 0) event_add(paused.resume.get(), &kPause);
        },
        &ring);
    return event_add(ring.acceptable.get(), nullptr) == 0;
}

void Broadcast::serve(uint32_t sap, std::function<void(const void* message)> service) {
    ring_->services[sap] = std::move(service);
}

uint32_t Broadcast::handle() const { return ring_->handle; }

}  // namespace quill
