// Owning types for the events of libevent, which call member functions. libevent is C, so no exception may
// leave a function that it calls.
#pragma once

#include <event2/event.h>
#include <sys/time.h>
#include <syslog.h>

#include <exception>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/log.h"

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

// The same for a member function of `object`, without arguments or with what happened (EV_READ and the like).
// The function may destroy the event.
template <auto function, class Object>
Event make_event(event_base* base, evutil_socket_t descriptor, short what, Object& object) {
    const auto callback = [](evutil_socket_t, short happened, void* argument) {
        auto& called = *static_cast<Object*>(argument);
        if constexpr (std::is_invocable_v<decltype(function), Object&, short>)
            (called.*function)(happened);
        else
            (called.*function)();
    };
    return make_event(base, descriptor, what, callback, &object);
}

// As event_add(3); throws std::bad_alloc where that fails.
inline void add_event(const Event& event, const timeval* after = nullptr) {
    if (event_add(event.get(), after) != 0) throw std::bad_alloc();
}

// Calls a function once, a fixed time after start().
class Timer {
 public:
    Timer() = default;
    Timer(Event event, timeval delay) : event_(std::move(event)), delay_(delay) {}

    bool is_running() const { return event_pending(event_.get(), EV_TIMEOUT, nullptr) != 0; }

    // Does nothing if the timer is running. Returns false if there is no memory for it.
    bool start() const { return is_running() || event_add(event_.get(), &delay_) == 0; }

 private:
    Event event_;
    timeval delay_{};
};

// A timer that calls a member function of `object`; throws std::bad_alloc.
template <auto function, class Object>
Timer make_timer(event_base* base, timeval delay, Object& object) {
    return {make_event<function>(base, -1, 0, object), delay};
}

// Calls a function that may throw. Returns its result, or false after an exception, which is logged as
// "ACTIVITY failed: REASON".
template <class Call>
bool guarded(const char* activity, const Call& call) {
    try {
        return call();
    } catch (const std::exception& failure) {
        if (client_log().has_room(0, true)) syslog(LOG_ERR, "%s failed: %s", activity, failure.what());
        return false;
    }
}

}  // namespace quill
