// Reading the account files where it matters whether a walk ended because the file did or because memory ran
// out.
#pragma once

#include <cerrno>

#include "quillsecurity/status.h"

namespace quill {

// Calls a function of the C library and returns its result. getspent() returns NULL both at end of file and
// on ENOMEM; errno tells them apart. If the call failed with ENOMEM, sets `status` to SECURITY_ERR_TRANSPORT
// | ENOMEM, else leaves it unchanged.
template <class Call>
auto call_checking_enomem(uint32_t& status, Call call) {
    errno = 0;
    auto result = call();
    if (errno == ENOMEM) status = SECURITY_ERR_TRANSPORT | ENOMEM;
    return result;
}

}  // namespace quill
