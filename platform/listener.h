// A socket in the runtime folder on which the daemon accepts connections, in its event loop.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

#include "platform/channel/closer.h"
#include "platform/event.h"

namespace quill {

class Listener {
 public:
    // `admit` is called when a connection waits, and accepts it with accept(). If it returns false, or the
    // closer is full, nothing is accepted for 100 ms. It must not throw.
    Listener(event_base* base, Closer& closer, std::function<bool()> admit)
        : base_(base), closer_(closer), admit_(std::move(admit)) {}
    // Stops listening, and removes the socket's file unless a successor replaced it.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Creates the socket under this name, for everybody, and listens. Replaces a file of the same name, which
    // a daemon that crashed may have left; the caller holds the runtime folder's lock. To be called once.
    // Returns false with errno set on failure; throws std::bad_alloc.
    bool listen(const char* name, int backlog);

    // Returns a connection, non-blocking and closed on exec, or -1 with errno set.
    int accept() const;

    // Returns true if accept() failed with this errno because the system is short of descriptors or memory,
    // so that the connection still waits.
    static bool is_shortage(int error);

 private:
    void on_connection();
    void resume();

    event_base* base_;
    Closer& closer_;
    std::function<bool()> admit_;
    int socket_ = -1;
    std::string path_;
    struct stat file_ {};  // the socket's, as it was created
    Event acceptable_;
    Timer pause_;
};

}  // namespace quill
