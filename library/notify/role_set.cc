// Converters of the role names in a role set. The field table holds their addresses for the platform's
// TLV utilities.
#include <cstring>

#include "quillplatform/tlv.h"
#include "quillsecurity.h"

namespace quill {
namespace {
constexpr uint32_t kNames = sizeof(security_role_set::roles);
}  // namespace
}  // namespace quill

uint32_t security_roles_get_tlv_data_sz() { return quill::kNames; }

uint32_t security_roles_struct_to_tlv(const void* structure, const void*, void** data, uint32_t* length,
                                      uint32_t* count) {
    if (structure == nullptr || data == nullptr || length == nullptr || count == nullptr)
        return TLVU_BAD_ARGUMENT;
    *data = tlvu_malloc(quill::kNames);
    if (*data == nullptr) return TLVU_NO_MEMORY;
    memcpy(*data, static_cast<const security_role_set*>(structure)->roles, quill::kNames);
    *count = 1;
    *length = quill::kNames;
    return TLVU_OK;
}

uint32_t security_roles_tlv_to_struct(void* structure, const void* data) {
    if (structure == nullptr || data == nullptr) return TLVU_BAD_ARGUMENT;
    memcpy(static_cast<security_role_set*>(structure)->roles, data, quill::kNames);
    return TLVU_OK;
}
