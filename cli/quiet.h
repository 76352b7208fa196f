// Keeps what libraries write to standard error out of the program's own output.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"

namespace quill::cli {

// While one of these is in scope, what is written to standard error is lost: cracklib complains there of a
// missing dictionary, which its result tells as well. Does nothing where no descriptor can be had.
class QuietStandardError {
 public:
    QuietStandardError()
        : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)), nowhere_(open("/dev/null", O_WRONLY | O_CLOEXEC)) {
        if (kept_ && nowhere_) dup2(nowhere_.get(), STDERR_FILENO);
    }
    ~QuietStandardError() {
        const int error = errno;  // of the call that was kept quiet
        if (kept_ && nowhere_) dup2(kept_.get(), STDERR_FILENO);
        errno = error;
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

 private:
    Descriptor kept_, nowhere_;
};

}  // namespace quill::cli
