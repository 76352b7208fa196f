// What a daemon needs of the system around it: a place of its own, a word to the service manager, a way into
// the background.
#pragma once

#include <string>

namespace quill {

// Makes the runtime folder where it is missing and takes its lock, which lasts until the process ends. False
// with a sentence in `reason`; one daemon at a time.
bool take_runtime_directory(std::string& reason);

// Tells the service manager, where there is one, "READY=1" or the like (sd_notify(3)).
void notify_manager(const char* state);

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
