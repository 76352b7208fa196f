// The account files, read where it matters why there is no further entry.
#pragma once

#include <cerrno>

#include "quillsecurity/status.h"

namespace quill {

// Calls the C library, whose answers are the same at the end of a file and where memory ran out: only errno
// tells. Then the status is set; one that is set stays.
template <class Call>
auto heeding_memory(uint32_t& status, Call call) {
    errno = 0;
    auto answer = call();
    if (errno == ENOMEM) status = SECURITY_ERR_TRANSPORT | ENOMEM;
    return answer;
}

}  // namespace quill
