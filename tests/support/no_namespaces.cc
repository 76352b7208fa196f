// Preloaded into a program: a system on which nobody may make namespaces.
#include <cerrno>

#include "tests/support/interpose.h"

INTERPOSED int unshare(int) noexcept {
    errno = EPERM;
    return -1;
}
