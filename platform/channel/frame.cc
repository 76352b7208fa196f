#include "platform/channel/frame.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace quill {

std::string runtime_directory() {
    const char* path = getenv("QUILL_RUNTIME_DIR");
    return path != nullptr && *path != '\0' ? path : "/run/quillsecurity";
}

bool socket_address(sockaddr_un& address) {
    const std::string path = runtime_directory() + "/quillsecurityd.sock";
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace quill
