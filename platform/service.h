// What a daemon needs of the system around it: a place of its own, a word to the service manager, a way into
// the background.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/folders.h"

namespace quill {

// Makes the runtime folder of this context, and the one that holds it, where they are missing, and takes its
// lock, which lasts until the process ends: one daemon at a time for each context. False with a sentence in
// `reason`: a folder that cannot be made or is not the daemon's user's alone, or a lock that is held.
bool take_runtime_directory(std::string& reason);

// A text of somebody else's for a line of the log: what could end its quotes, its line or speak to a terminal
// is a '.'.
std::string log_safe(std::string_view text);

// Tells the service manager, where there is one, "READY=1" or the like (sd_notify(3)).
void notify_manager(const char* state);

// Options for openlog(3): messages go to standard error as well, unless that is the journal, where syslog(3)
// puts its lines already.
int log_options();

// Goes on in a background process; the calling one waits for ready() there, then exits with 0, or with 1 when
// the background process ended without it.
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
