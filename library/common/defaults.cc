// Default values of services. They are written only where no value is stored, so that what an administrator
// has set survives every restart.
#include <algorithm>

#include "base/byte_order.h"
#include "base/tables.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

struct Default {
    uint32_t code;
    uint32_t value;
};

constexpr Default kDefaults[] = {
#define ROW(code, value) {code, value},
    SECURITY_DEFAULT_LIST(ROW)
#undef ROW
};

// Returns true if the store says that the key does not exist. A key that cannot be looked up counts as
// present: its value must not be overwritten.
bool is_absent(uint32_t handle, const Key& key) {
    const pss_descriptor descriptor = key.descriptor();
    uint32_t status = SECURITY_OK;
    pss2_move2key(&handle, PSS_MODE, &descriptor, &status);
    return status == SECURITY_PSS_NO_KEY;
}

uint32_t write_default(uint32_t handle, const Key& key, uint32_t value) {
    flip(value);
    const uint32_t status = store(handle, key, {&value, sizeof value});
    if (status != SECURITY_OK) trace("error in storing to pss:%s", status_text(status));
    return status;
}

bool telnet_by_default(uint16_t card_type) {
    if (quill_telnet_card_types == nullptr) return false;
    uint32_t count = 0;
    const uint16_t* types = quill_telnet_card_types(&count);
    return std::find(types, types + count, card_type) != types + count;
}

uint32_t telnet_default() {
    card_module_info card{};
    const uint32_t status = get_card_module_info(&card);
    if (status != 0) {
        trace("Failed to get SW_CARD_ID, assuming non-ferrow: %s", status_text(status));
        return 0;
    }
    return telnet_by_default(card.card_type) ? 1 : 0;
}

}  // namespace
}  // namespace quill

uint32_t security_conf_default_check(uint32_t handle) {
    using namespace quill;
    trace("setting default values in security configuration");
    for (const auto& row : kDefaults) {
        const Key key(kServicesTable, row.code);
        if (!is_absent(handle, key)) continue;
        const uint32_t status = write_default(handle, key, row.value);
        if (status != SECURITY_OK) return status;
    }
    const Key telnet(kServicesTable, static_cast<uint32_t>(SECURITY_SERVICE_TELNET));
    return is_absent(handle, telnet) ? write_default(handle, telnet, telnet_default()) : SECURITY_OK;
}

uint32_t security_debug_conf_default_check() {
    quill::trace("setting default values in security debug configuration");
    return SECURITY_OK;
}
