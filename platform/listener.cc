#include "platform/listener.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "base/file.h"
#include "platform/channel/frame.h"

namespace quill {
namespace {

constexpr timeval kPause{0, 100000};

}  // namespace

Listener::~Listener() {
    if (socket_ < 0) return;
    acceptable_.reset();
    closer_.close(socket_);
    struct stat named;
    if (lstat(path_.c_str(), &named) == 0 && same_file(named, file_)) unlink(path_.c_str());
}

bool Listener::listen(const char* name, int backlog) {
    sockaddr_un address;
    if (!socket_address(address, name)) return false;
    path_ = address.sun_path;
    if (unlink(address.sun_path) != 0 && errno != ENOENT) return false;
    socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0) return false;
    closer_.protect(socket_);
    // Everybody may connect; what each may do is decided by the credentials of the connection.
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        lstat(address.sun_path, &file_) != 0 || chmod(address.sun_path, 0666) != 0 ||
        ::listen(socket_, backlog) != 0)
        return false;
    acceptable_ = make_event<&Listener::on_connection>(base_, socket_, EV_READ | EV_PERSIST, *this);
    pause_ = make_timer<&Listener::resume>(base_, kPause, *this);
    add_event(acceptable_);
    return true;
}

int Listener::accept() const { return accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); }

bool Listener::is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void Listener::on_connection() {
    if (!closer_.is_full() && admit_()) return;
    // The connection still waits: without a pause, the loop would try again at once.
    if (pause_.start()) event_del(acceptable_.get());
}

void Listener::resume() {
    if (event_add(acceptable_.get(), nullptr) != 0) pause_.start();
}

}  // namespace quill
