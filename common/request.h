// The client's side of every request that carries one whole record.
#pragma once

#include <cstdint>

#include "quillplatform/shell.h"

namespace quill {

// Sends `length` bytes of a request, which is converted to wire order in place. With status 0 the reply's
// record, back in host order, replaces it; a reply shorter than the record is SECURITY_ERR_TRANSPORT | EPROTO
// instead. The reply's block is released whatever the status, and any other status comes back unchanged.
uint32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length, uint32_t connection);

// The same, on a copy: only an accepted reply reaches the caller's record.
template <class Record>
uint32_t request(int32_t request_type, uint32_t operation, Record& record, uint32_t connection) {
    Record message = record;
    const uint32_t status = exchange(request_type, operation, &message, sizeof message, connection);
    if (status == 0) record = message;
    return status;
}

// Lets requests take as long as given while in scope.
class RequestTimeout {
 public:
    explicit RequestTimeout(uint32_t seconds) : previous_(security_cmi_timeout) { security_cmi_timeout = seconds; }
    ~RequestTimeout() { security_cmi_timeout = previous_; }
    RequestTimeout(const RequestTimeout&) = delete;
    RequestTimeout& operator=(const RequestTimeout&) = delete;

 private:
    uint32_t previous_;
};

}  // namespace quill
