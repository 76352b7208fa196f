#include "quillplatform/sysmgr.h"

#include <cstdlib>

#include "platform/config.h"

int32_t sysmgrcmn_vdc_id_get() {
    const auto from_environment = quill::parse_number(getenv("SYSMGR_VDC_ID"), 1, SYSMGRCMN_VDC_ID_MAX);
    return from_environment ? *from_environment : quill::config().vdc_id.value_or(1);
}

uint32_t get_card_module_info(card_module_info* info) {
    const auto& type = quill::config().card_type;
    if (!type) return 1;
    info->card_type = *type;
    return 0;
}

const uint16_t* quill_telnet_card_types(uint32_t* count) {
    const auto& types = quill::config().telnet_card_types;
    *count = static_cast<uint32_t>(types.size());
    return types.data();
}
