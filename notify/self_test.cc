// The messages by which the daemon has the cryptographic self-tests run at start-up, in FIPS mode.
//
// One status stands for whatever goes wrong, and nothing is logged: the daemon says what it makes of it.
#include <algorithm>
#include <cstring>

#include "common/block.h"
#include "quillplatform/mts.h"
#include "quillplatform/tlv.h"
#include "quillsecurity.h"

namespace quill {
namespace {

struct RequestHead {
    uint8_t value;
    uint8_t zero;
    uint16_t count;
};
static_assert(sizeof(RequestHead) == 4);

struct ResponseHead {
    uint8_t value;
    uint8_t unread[3];
    uint32_t word;
};
static_assert(sizeof(ResponseHead) == 8);

}  // namespace
}  // namespace quill

uint32_t securityd_bootup_fips_post_test_send_request(uint32_t mts_handle, uint8_t value, uint16_t count,
                                                      const uint32_t* entries) {
    if (count == 0 || entries == nullptr) return SECURITY_ERR_MISSING_ARGUMENT;
    struct {
        quill::RequestHead head;
        uint32_t entries[UINT16_MAX];
    } request{};
    request.head = {value, 0, count};
    const auto size = static_cast<uint32_t>(count * sizeof *entries);
    memcpy(request.entries, entries, size);
    const int32_t sent = mts_send(mts_handle, MTS_THIS_NODE, MTS_SAP_SELF_TEST, SECURITY_MTS_SELF_TEST,
                                  &request, sizeof request.head + size, 0, 0, 0);
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
    // A transport that gives a payload and no size of it vouches for what the payload says of itself.
    const uint32_t told = mts_payload_size(message), payload_size = told == 0 ? UINT32_MAX : told;
    ResponseHead head;
    if (payload_size < sizeof head) return SECURITY_ERR_MISSING_ARGUMENT;
    memcpy(&head, payload, sizeof head);
    const unsigned char* elements = payload + sizeof head;
    // The array says itself how long it is; what was received has the last word. Where nothing is left that
    // could say so, there are no elements.
    const size_t received = payload_size - sizeof head;
    const uint32_t elements_size = received < sizeof(uint32_t) ? 0 : tlv_array_size_get(elements, 0);
    if (elements_size > received) return SECURITY_ERR_MISSING_ARGUMENT;
    Block<void> copy(calloc(1, std::max(elements_size, 1u)));  // a block even for none
    if (copy == nullptr) return SECURITY_ERR_MISSING_ARGUMENT;
    memcpy(copy.get(), elements, elements_size);
    *value = head.value;
    *word = head.word;
    *size = static_cast<uint16_t>(elements_size);
    *array = copy.release();
    return SECURITY_OK;
}
