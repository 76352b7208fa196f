#include "library/common/request.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace quill {

Reply::~Reply() {
    if (block_ != nullptr) OPENSSL_cleanse(block_, malloc_usable_size(block_));  // it may hold a secret
    free(block_);
}

const void* Reply::bytes(uint32_t size) const {
    return block_ != nullptr && malloc_usable_size(block_) >= size ? block_ : nullptr;
}

uint32_t send(int32_t request_type, uint32_t operation, const void* record, uint32_t length, Reply* reply,
              uint32_t connection) {
    // The channel's parameter is not const, but it does not write to the request.
    const int32_t status = security_cmi(request_type, operation, const_cast<void*>(record),
                                        reply != nullptr ? &reply->block_ : nullptr, &length, connection);
    return static_cast<uint32_t>(status);
}

uint32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length,
                  uint32_t connection) {
    security_conf_cmi_byteorder_convert(request_type, record);
    Reply reply;
    const uint32_t status = send(request_type, operation, record, length, &reply, connection);
    if (status != SECURITY_OK) return status;
    const void* received = reply.bytes(length);
    if (received == nullptr) {
        errno = EPROTO;
        return SECURITY_ERR_TRANSPORT | EPROTO;
    }
    memcpy(record, received, length);
    security_conf_cmi_byteorder_convert(request_type, record);
    return SECURITY_OK;
}

}  // namespace quill
