// The daemon as a service of the system: its runtime directory, messages to the service manager, and the
// start in the background.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/folders.h"

namespace quill {

// Creates the runtime directory of this context, and the shared one that contains it, if they are missing,
// and locks it until the process ends, so that each context has only one daemon. On failure returns false
// with a sentence for the user in `reason`: the directory cannot be created, does not belong to the daemon's
// user alone, or is locked by another daemon.
bool take_runtime_directory(std::string& reason);

// Returns a text from outside with '.' for each quote, control character and byte beyond ASCII, so that it
// can be logged in quotes.
std::string log_safe(std::string_view text);

// Sends a state such as "READY=1" to the service manager, if there is one (sd_notify(3)).
void notify_manager(const char* state);

// Returns the options for openlog(3). Lines also go to standard error, unless that is the journal, which gets
// them from syslog(3) already.
int log_options();

// The start of a background process. enter() returns in a child process, in a session of its own; the parent
// waits until the child calls ready() and exits with 0, or with 1 if the child ended without that. enter()
// returns false with errno set on failure.
class Background {
 public:
    Background() = default;
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    bool enter();
    void ready();

 private:
    int report_ = -1;
};

}  // namespace quill
