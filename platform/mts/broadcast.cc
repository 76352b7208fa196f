#include "platform/mts/broadcast.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <list>
#include <map>
#include <new>
#include <utility>

#include "platform/channel/closer.h"
#include "platform/channel/peer.h"
#include "platform/listener.h"
#include "platform/log.h"
#include "platform/mts/message.h"

namespace quill {
namespace {

constexpr size_t kKept = 8192;
constexpr size_t kKeptBytes = 4UL * 1024 * 1024;
constexpr Places::Limits kListeners{.all = 64, .for_administrators = 64, .for_root = 16, .for_one_user = 16};
constexpr timeval kSubscriptionTime{10, 0};
constexpr int kBacklog = 32;
constexpr timeval kShortagePause{0, 100000};
constexpr char kServing[] = "serving a listener";

// The kernel doubles this size, and twice the size is just more than the largest message. So a listener that
// does not receive takes little of the kernel's memory, compared with the ring.
constexpr int kSocketBuffer = 64 * 1024;
static_assert(static_cast<size_t>(kSocketBuffer) > (MTS_MAX_PAYLOAD + 4096) / 2);

struct Sent {
    uint32_t sap;
    MtsMessage message;

    // Memory that it takes, with the overhead of the heap.
    size_t bytes() const { return sizeof(Sent) + message.size() + 32; }
};

}  // namespace

struct Broadcast::Ring {
    struct Subscriber {
        Ring& ring;
        int socket = -1;
        Peer peer{};
        Places::Place place{};
        Event readable{}, writable{};
        Timer retry{};
        bool subscribed = false;
        uint32_t sap = MTS_SAP_ALL;
        uint32_t opcode = MTS_ANY_OPCODE;
        uint64_t next = 0;  // number of the first message that it has not been sent
        uint32_t lost = 0;  // messages dropped since the last one that it was sent
        std::list<Subscriber>::iterator self{};

        explicit Subscriber(Ring& owner) : ring(owner) {}
        ~Subscriber() {
            readable.reset();
            writable.reset();
            if (socket >= 0) ring.closer.close(socket);
        }
        Subscriber(const Subscriber&) = delete;
        Subscriber& operator=(const Subscriber&) = delete;

        bool wants(const Sent& sent) const {
            return (sent.sap == MTS_SAP_ALL || sent.sap == sap) &&
                   (opcode == MTS_ANY_OPCODE || opcode == sent.message.opcode);
        }
        bool is_waiting() const {
            return event_pending(writable.get(), EV_WRITE, nullptr) != 0 || retry.is_running();
        }
        void on_readable(short what);
        void send_more();
        // These return false if the connection is to be closed.
        bool welcome(int error);
        bool subscribe();
        bool send_pending();
        bool send(const Sent& sent);
    };

    Ring(event_base* loop, gid_t group, uint32_t own_context)
        : base(loop), administrators(group), context(own_context), closer(loop) {}
    ~Ring() {
        subscribers.clear();
        quill_mts_close(handle);
    }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    bool admit();
    int refusal(Subscriber& arrived);
    void broadcast(uint32_t to_sap, const MtsMessage& message);
    void drop_oldest();
    void pop_oldest();
    void drop_sent();

    event_base* base;
    gid_t administrators;
    uint32_t context;
    uint32_t handle = 0;
    Closer closer;
    Listener listener{base, closer, [this] { return guarded(kServing, [this] { return admit(); }); }};
    Places places{kListeners};
    std::deque<Sent> kept;
    size_t kept_bytes = 0;
    uint64_t first = 0;  // number of the oldest message in the ring, counted from 0
    std::list<Subscriber> subscribers;
    std::map<uint32_t, std::function<void(const void*)>> services;
};

bool Broadcast::Ring::Subscriber::welcome(int error) {
    MtsWelcome frame;
    frame.error = static_cast<uint32_t>(error);
    return ::send(socket, &frame, sizeof frame, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof frame && error == 0;
}

// Receives the one message that a listener sends. Anything after it ends the connection.
bool Broadcast::Ring::Subscriber::subscribe() {
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

bool Broadcast::Ring::Subscriber::send(const Sent& sent) {
    MtsHeader header;
    header.opcode = sent.message.opcode;
    header.lost = lost;
    header.length = sent.message.size();
    iovec parts[] = {{&header, sizeof header},
                     {const_cast<unsigned char*>(sent.message.payload()), sent.message.size()}};
    msghdr whole{};
    whole.msg_iov = parts;
    whole.msg_iovlen = 2;
    return sendmsg(socket, &whole, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// Sends messages until the socket is full. If the system is short of memory, it tries again after a pause:
// the socket may be writable all the time.
bool Broadcast::Ring::Subscriber::send_pending() {
    for (; next < ring.first + ring.kept.size(); ++next) {
        const Sent& sent = ring.kept[static_cast<size_t>(next - ring.first)];
        if (!wants(sent)) continue;
        if (!send(sent)) {
            if (errno == ENOBUFS || errno == ENOMEM) return retry.start();
            return errno == EAGAIN && event_add(writable.get(), nullptr) == 0;
        }
        lost = 0;
    }
    return true;
}

// Called when a message has arrived, or the time for the subscription is over.
void Broadcast::Ring::Subscriber::on_readable(short what) {
    Ring& owner = ring;
    const bool timed_out = (what & EV_READ) == 0;
    if (timed_out || !guarded(kServing, [this] { return subscribe(); })) owner.subscribers.erase(self);
    owner.drop_sent();
}

void Broadcast::Ring::Subscriber::send_more() {
    Ring& owner = ring;
    if (!send_pending()) owner.subscribers.erase(self);
    owner.drop_sent();
}

// Returns 0, or the errno of a refusal.
int Broadcast::Ring::refusal(Subscriber& arrived) {
    const Peer& peer = arrived.peer = identify(arrived.socket, administrators);
    if (peer.administrator) arrived.place = places.take(peer);
    if (arrived.place) return 0;
    if (client_log().has_room(peer.uid))
        syslog(LOG_WARNING, "a listener of uid %u, pid %d is turned away: %s", peer.uid, peer.pid,
               peer.administrator ? "there are too many" : "not an administrator");
    return peer.administrator ? EUSERS : EACCES;
}

// Returns false if no connection can be accepted now.
bool Broadcast::Ring::admit() {
    // Allocated first: a connection that was accepted without memory for it would be lost.
    std::list<Subscriber> arrived;
    Subscriber& added = arrived.emplace_front(*this);
    added.self = arrived.begin();
    added.socket = listener.accept();
    if (added.socket < 0) return !Listener::is_shortage(errno);
    setsockopt(added.socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    if (!added.welcome(refusal(added))) return true;
    added.readable = make_event<&Subscriber::on_readable>(base, added.socket, EV_READ | EV_PERSIST, added);
    added.writable = make_event<&Subscriber::send_more>(base, added.socket, EV_WRITE, added);
    added.retry = make_timer<&Subscriber::send_more>(base, kShortagePause, added);
    event_base_update_cache_time(base);  // a request may have taken long
    add_event(added.readable, &kSubscriptionTime);
    subscribers.splice(subscribers.begin(), arrived);
    return true;
}

void Broadcast::Ring::drop_oldest() {
    for (Subscriber& behind : subscribers) {
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

// Drops the messages that every listener has been sent.
void Broadcast::Ring::drop_sent() {
    uint64_t needed = first + kept.size();
    for (const Subscriber& each : subscribers)
        if (each.subscribed) needed = std::min(needed, each.next);
    while (first < needed) pop_oldest();
}

void Broadcast::Ring::broadcast(uint32_t to_sap, const MtsMessage& message) {
    kept.push_back({to_sap, message});
    kept_bytes += kept.back().bytes();
    while (kept.size() > kKept || kept_bytes > kKeptBytes) drop_oldest();
    for (auto at = subscribers.begin(); at != subscribers.end();) {
        Subscriber& each = *at++;
        if (each.subscribed && !each.is_waiting() && !each.send_pending()) subscribers.erase(each.self);
    }
    drop_sent();
    // Called last, since a service may send a message itself.
    const auto service = services.find(to_sap);
    if (service != services.end()) service->second(&message);
}

Broadcast::Broadcast(event_base* base, gid_t administrators, uint32_t own_context)
    : ring_(std::make_unique<Ring>(base, administrators, own_context)) {
    ring_->handle = quill_mts_attach(
        [](void* context, uint32_t sap, uint32_t opcode, const void* payload, uint32_t length) -> int32_t {
            try {
                static_cast<Ring*>(context)->broadcast(sap, MtsMessage(opcode, payload, length));
                return 0;
            } catch (const std::bad_alloc&) {
                return ENOMEM;
            }
        },
        ring_.get());
    if (ring_->handle == 0) throw std::bad_alloc();
}

Broadcast::~Broadcast() = default;

bool Broadcast::listen() { return ring_->listener.listen(kAnnouncementSocket, kBacklog); }

void Broadcast::serve(uint32_t sap, std::function<void(const void* message)> service) {
    ring_->services[sap] = std::move(service);
}

uint32_t Broadcast::handle() const { return ring_->handle; }

}  // namespace quill
