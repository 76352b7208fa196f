// Waiting for a child process that another user may stop: it runs with his rights.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace quill {

using Clock = std::chrono::steady_clock;

enum class Awaited { kReadable, kHeld, kTimeOut };

// Waits until the descriptor, a pipe that the child writes to, can be read or has nobody left to write it.
// kHeld as soon as the child, which the caller has not reaped, was stopped by a signal or by a debugger;
// kTimeOut when `end` has come.
Awaited await_child(int descriptor, pid_t child, Clock::time_point end);

}  // namespace quill
