// Points in time up to which something is waited for, on the monotonic clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace quill {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

constexpr Deadline kNever = Deadline::max();

inline Deadline after(Clock::duration time) { return Clock::now() + time; }

inline bool passed(Deadline deadline) { return Clock::now() >= deadline; }

// The time that is left, for poll(2): rounded up, and 0 once the deadline has passed.
inline int milliseconds_left(Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace quill
