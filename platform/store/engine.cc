#include "platform/store/engine.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"

namespace quill {

void log_store_error(const std::string& path, uint32_t status, const char* detail) {
    syslog(LOG_ERR, "store %s: %s (%#x): %s", path.c_str(), syserr2str(status), status, detail);
}

uint32_t check_version(const std::string& path, uint32_t found, uint32_t expected) {
    if (found == 0 || found == expected) return PSS_OK;
    syslog(LOG_ERR, "store %s: stamped with version %#x, this program needs %#x; it is left as it is",
           path.c_str(), found, expected);
    return PSS_WRONG_VERSION;
}

uint32_t sync_folder(const std::string& path) {
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return status_of_errno(folder && fsync(folder.get()) == 0 ? 0 : errno);
}

uint32_t status_of_errno(int error) {
    switch (error) {
    case 0:
        return PSS_OK;
    case ENOSPC:
        return PSS_FULL;
    case EDQUOT:
        return PSS_QUOTA;
    case EFBIG:
        return PSS_TOO_LARGE;
    case EROFS:
        return PSS_READ_ONLY;
    case EACCES:
    case EPERM:
        return PSS_DENIED;
    case ENOMEM:
        return PSS_NO_MEMORY;
    case EMFILE:
    case ENFILE:
        return PSS_NO_FILES;
    case ENOENT:
    case ENOTDIR:
        return PSS_MISSING;
    case EINVAL:
    case ENAMETOOLONG:
        return PSS_BAD_ARGUMENT;
    case ELOOP:
        return PSS_NOT_A_STORE;
    default:
        return PSS_IO;
    }
}

}  // namespace quill
