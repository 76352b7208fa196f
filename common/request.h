// The client's side of every request that carries one whole record.
#pragma once

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdint>

#include "quillplatform/shell.h"
#include "quillsecurity/status.h"

namespace quill {

// Sends `length` bytes of a request, which is converted to wire order in place. With status 0 the reply's
// record, back in host order, replaces it; a reply shorter than the record is SECURITY_ERR_TRANSPORT | EPROTO
// instead. The reply's block is released whatever the status, and any other status comes back unchanged.
uint32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length,
                  uint32_t connection);

// The same, on a copy: only an accepted reply reaches the caller's record.
template <class Record>
uint32_t request(int32_t request_type, uint32_t operation, Record& record, uint32_t connection) {
    Record message = record;
    const uint32_t status = exchange(request_type, operation, &message, sizeof message, connection);
    if (status == 0) record = message;
    OPENSSL_cleanse(&message, sizeof message);  // it may hold a secret
    return status;
}

// The status of a request with an undeliverable one, for which the channel answers -1, as
// SECURITY_ERR_TRANSPORT and errno.
inline uint32_t with_errno(uint32_t status) {
    const bool undelivered = status >> 31 != 0 && (status & 0xffff0000u) != SECURITY_ERR_TRANSPORT;
    return undelivered ? SECURITY_ERR_TRANSPORT | (static_cast<uint32_t>(errno) & 0xfff) : status;
}

// Lets requests take as long as given while in scope.
class RequestTimeout {
 public:
    explicit RequestTimeout(uint32_t seconds) : previous_(security_cmi_timeout) {
        security_cmi_timeout = seconds;
    }
    ~RequestTimeout() { security_cmi_timeout = previous_; }
    RequestTimeout(const RequestTimeout&) = delete;
    RequestTimeout& operator=(const RequestTimeout&) = delete;

 private:
    uint32_t previous_;
};

}  // namespace quill
