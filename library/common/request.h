// Sending requests to the daemon and receiving replies.
#pragma once

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdint>

#include "quillplatform/shell.h"
#include "quillsecurity/status.h"

namespace quill {

// Owning type for the malloc()ed block of a reply: wiped and freed when destroyed.
class Reply {
 public:
    Reply() = default;
    ~Reply();
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    // Returns true if there was a reply, of whatever length.
    bool received() const { return block_ != nullptr; }

    // Return the start of the reply if its block has at least `size` bytes, or room for the record,
    // else null. The size of the block is malloc_usable_size(3): platforms differ in what they store as
    // the length.
    const void* bytes(uint32_t size) const;
    template <class Record>
    const Record* as() const {
        return static_cast<const Record*>(bytes(sizeof(Record)));
    }

 private:
    friend uint32_t send(int32_t, uint32_t, const void*, uint32_t, Reply*, uint32_t);

    void* block_ = nullptr;
};

// Sends `length` bytes of `record` unchanged. Returns the daemon's status, or the channel's negative result
// with errno if the request could not be delivered. The reply goes to *reply, whatever the status; null if no
// reply is wanted.
uint32_t send(int32_t request_type, uint32_t operation, const void* record, uint32_t length, Reply* reply,
              uint32_t connection);

// Sends a record of `length` bytes, byte-swapped in place for the wire. With status 0 the record is replaced
// by the reply's, in host order; SECURITY_ERR_TRANSPORT | EPROTO, with errno EPROTO, if the reply is shorter.
// Any other status is returned unchanged, as by send(), and leaves the record in wire order.
uint32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length,
                  uint32_t connection);

// The same on a copy: the caller's record changes only with status 0.
template <class Record>
uint32_t request(int32_t request_type, uint32_t operation, Record& record, uint32_t connection) {
    Record message = record;
    const uint32_t status = exchange(request_type, operation, &message, sizeof message, connection);
    if (status == 0) record = message;
    OPENSSL_cleanse(&message, sizeof message);  // it may hold a secret
    return status;
}

// Returns true if a status is the channel's negative result for a request that could not be delivered.
inline bool undelivered(uint32_t status) { return status >> 31 != 0; }

// Returns SECURITY_ERR_TRANSPORT | errno for a request that could not be delivered, else the
// status unchanged.
inline uint32_t with_errno(uint32_t status) {
    return undelivered(status) ? SECURITY_ERR_TRANSPORT | (static_cast<uint32_t>(errno) & 0xfff) : status;
}

// Sets the time limit of requests, in seconds, while in scope; then restores the previous one.
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
