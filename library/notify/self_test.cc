// Messages of the cryptographic self-tests: sending the request and parsing the response.
//
// All failures have the same status, and nothing is logged here.
#include <algorithm>
#include <cstring>

#include "base/block.h"
#include "quillplatform/mts.h"
#include "quillplatform/tlv.h"
#include "quillsecurity.h"

namespace quill {
namespace {

struct RequestHeader {
    uint8_t value;
    uint8_t zero;
    uint16_t count;
};
static_assert(sizeof(RequestHeader) == 4);

struct ResponseHeader {
    uint8_t value;
    uint8_t unread[3];
    uint32_t word;
};
static_assert(sizeof(ResponseHeader) == 8);

}  // namespace
}  // namespace quill

uint32_t securityd_bootup_fips_post_test_send_request(uint32_t mts_handle, uint8_t value, uint16_t count,
                                                      const uint32_t* entries) {
    if (count == 0 || entries == nullptr) return SECURITY_ERR_MISSING_ARGUMENT;
    struct {
        quill::RequestHeader header;
        uint32_t entries[UINT16_MAX];
    } request{};
    request.header = {value, 0, count};
    const auto size = static_cast<uint32_t>(count * sizeof *entries);
    memcpy(request.entries, entries, size);
    const int32_t sent = mts_send(mts_handle, MTS_THIS_NODE, MTS_SAP_SELF_TEST, SECURITY_MTS_SELF_TEST,
                                  &request, sizeof request.header + size, 0, 0, 0);
    return sent < 0 ? SECURITY_ERR_MISSING_ARGUMENT : SECURITY_OK;
}

uint32_t securityd_bootup_fips_post_test_parse_response(const void* message, uint8_t* value, uint32_t* word,
                                                        uint16_t* size, void** array) {
    using namespace quill;
    if (message == nullptr || value == nullptr || size == nullptr || array == nullptr ||
        mts_opc_get(message) != SECURITY_MTS_SELF_TEST)
        return SECURITY_ERR_MISSING_ARGUMENT;
    const auto* payload = static_cast<const unsigned char*>(mts_payload_get(message));
    if (payload == nullptr) return SECURITY_ERR_MISSING_ARGUMENT;
    // If the transport does not know the size of the payload, the size that the payload states is trusted.
    const uint32_t reported_size = mts_payload_size(message);
    const uint32_t payload_size = reported_size == 0 ? UINT32_MAX : reported_size;
    ResponseHeader header;
    if (payload_size < sizeof header) return SECURITY_ERR_MISSING_ARGUMENT;
    memcpy(&header, payload, sizeof header);
    const unsigned char* elements = payload + sizeof header;
    // The array begins with its size, which must not exceed what was received. If less was received than
    // the size takes, there are no elements.
    const size_t received = payload_size - sizeof header;
    const uint32_t elements_size = received < sizeof(uint32_t) ? 0 : tlv_array_size_get(elements, 0);
    if (elements_size > received) return SECURITY_ERR_MISSING_ARGUMENT;
    Block<void> copy(calloc(1, std::max(elements_size, 1u)));  // not null even without elements
    if (copy == nullptr) return SECURITY_ERR_MISSING_ARGUMENT;
    memcpy(copy.get(), elements, elements_size);
    *value = header.value;
    *word = header.word;
    *size = static_cast<uint16_t>(elements_size);
    *array = copy.release();
    return SECURITY_OK;
}
