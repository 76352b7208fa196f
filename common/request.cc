#include "common/request.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace quill {
namespace {

// The reply's block, which is the client's to free whatever the status.
class Reply {
 public:
    Reply() = default;
    ~Reply() { free(block_); }
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    void** slot() { return &block_; }
    const void* record() const { return block_; }
    void wipe(uint32_t length) { OPENSSL_cleanse(block_, length); }

 private:
    void* block_ = nullptr;
};

}  // namespace

uint32_t exchange(int32_t request_type, uint32_t operation, void* record, uint32_t length,
                  uint32_t connection) {
    security_conf_cmi_byteorder_convert(request_type, record);
    Reply reply;
    uint32_t received = length;
    const int32_t status = security_cmi(request_type, operation, record, reply.slot(), &received, connection);
    if (status != 0) return static_cast<uint32_t>(status);
    if (reply.record() == nullptr || received < length) return SECURITY_ERR_TRANSPORT | EPROTO;
    memcpy(record, reply.record(), length);
    reply.wipe(length);  // it may hold a secret
    security_conf_cmi_byteorder_convert(request_type, record);
    return SECURITY_OK;
}

}  // namespace quill
