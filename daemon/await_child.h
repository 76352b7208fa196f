// Waits for a child process that another user may stop, because it has that user's rights.
#pragma once

#include "base/process.h"

namespace quill {

enum class Awaited { kEnded, kStopped, kTimedOut };

// Waits for the end of the child. Returns kStopped as soon as a signal or a debugger has stopped it.
Awaited await_child(Child& child, Deadline deadline);

}  // namespace quill
