// Suppresses what libraries write to standard error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"

namespace quill::cli {

// Discards standard error while in scope: cracklib prints there that the dictionary is missing, which its
// result says as well. Does nothing if no descriptor is free. Preserves errno.
class QuietStandardError {
 public:
    QuietStandardError()
        : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)), nowhere_(open("/dev/null", O_WRONLY | O_CLOEXEC)) {
        if (kept_ && nowhere_) dup2(nowhere_.get(), STDERR_FILENO);
    }
    ~QuietStandardError() {
        const int error = errno;  // of the call in scope
        if (kept_ && nowhere_) dup2(kept_.get(), STDERR_FILENO);
        errno = error;
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

 private:
    Descriptor kept_, nowhere_;
};

}  // namespace quill::cli
