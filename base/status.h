// The parts of a status: the component that it comes from, and the errno in a status of the transport.
#pragma once

#include <cstdint>

#include "quillplatform/pss.h"
#include "quillsecurity/status.h"

namespace quill {

constexpr uint32_t kStatusFamily = 0xffff0000;  // the bits that name the component
constexpr uint32_t kStatusErrno = 0xfff;        // the bits of an errno in a status of the transport

// Returns true for a status of the store (quillplatform/pss.h), including PSS_NO_KEY.
constexpr bool is_store_status(uint32_t status) {
    return (status & kStatusFamily) == (PSS_NO_KEY & kStatusFamily);
}

// Returns the status of a request that could not be delivered or was not answered, because of this errno.
constexpr uint32_t undelivered_status(int error) {
    return SECURITY_ERR_TRANSPORT | (static_cast<uint32_t>(error) & kStatusErrno);
}

// Returns true for such a status.
constexpr bool is_undelivered(uint32_t status) { return (status & kStatusFamily) == SECURITY_ERR_TRANSPORT; }

}  // namespace quill
