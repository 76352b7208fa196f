#include "platform/channel/frame.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/folders.h"

namespace quill {

bool socket_address(sockaddr_un& address, const char* name) {
    const std::string path = runtime_directory() + "/" + name;
    address = {};
    address.sun_family = AF_UNIX;
    const bool absolute = path[0] == '/';
    if (!absolute || path.size() >= sizeof address.sun_path) {
        errno = absolute ? ENAMETOOLONG : EINVAL;
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace quill
