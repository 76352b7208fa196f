// Owning type for events of libevent.
#pragma once

#include <event2/event.h>

#include <memory>
#include <new>

namespace quill {

struct EventFree {
    void operator()(event* event) const { event_free(event); }
};
using Event = std::unique_ptr<event, EventFree>;

// As event_new(3); throws std::bad_alloc where that fails.
inline Event make_event(event_base* base, evutil_socket_t descriptor, short what, event_callback_fn callback,
                        void* argument) {
    Event made(event_new(base, descriptor, what, callback, argument));
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

// As event_add(3); throws std::bad_alloc where that fails.
inline void add_event(const Event& event, const timeval* after = nullptr) {
    if (event_add(event.get(), after) != 0) throw std::bad_alloc();
}

}  // namespace quill
