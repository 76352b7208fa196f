// The client's side of every request.
#pragma once

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdint>

#include "quillplatform/shell.h"
#include "quillsecurity/status.h"

namespace quill {

// What the daemon sent back: a block of the heap, wiped and freed with this object.
class Reply {
 public:
    Reply() = default;
    ~Reply();
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    // There was one, of whatever length.
    bool received() const { return block_ != nullptr; }

    // Its first bytes, or its record; null where the reply is missing or its block is shorter than that. The
    // heap says how long it is: what a channel leaves in the length word is its own affair.
    const void* bytes(uint32_t wanted) const;
    template <class Record>
    const Record* as() const {
        return static_cast<const Record*>(bytes(sizeof(Record)));
    }

 private:
    friend uint32_t send(int32_t, uint32_t, const void*, uint32_t, Reply*, uint32_t);

    void* block_ = nullptr;
};

// Sends `length` bytes as they stand, once, and answers the status as it came, 0xffffffff where nothing was
// delivered. Without a reply object none is asked for.
uint32_t send(int32_t request_type, uint32_t operation, const void* record, uint32_t length, Reply* reply,
              uint32_t connection);

// Sends a record, which is converted to wire order in place. With status 0 the reply's record, back in host
// order, replaces it; a reply shorter than the record is SECURITY_ERR_TRANSPORT | EPROTO instead, and errno
// is EPROTO. Any other status comes back unchanged.
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

// Whether the channel could not deliver a request: it then answers a negative number.
inline bool undelivered(uint32_t status) { return status >> 31 != 0; }

// The status of a request with an undeliverable one, for which the channel answers a negative number, as
// SECURITY_ERR_TRANSPORT and errno.
inline uint32_t with_errno(uint32_t status) {
    return undelivered(status) ? SECURITY_ERR_TRANSPORT | (static_cast<uint32_t>(errno) & 0xfff) : status;
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
