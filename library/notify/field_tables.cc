// The field tables of notifications and role sets, and a set of TLV functions for each table.
//
// The platform reads the tables through pointers, so their layout is fixed by quillsecurity/notify.h.
#include <cstddef>

#include "quillplatform/tlv.h"
#include "quillsecurity.h"

namespace quill {

template <size_t fields>
struct FieldTable {
    tlvu_table_header header;
    tlvu_field_descriptor descriptors[fields + 1];
};

namespace {

constexpr tlvu_field_descriptor kTerminator{-1, -1, -1, 0, 0, 0, 0, 0, UINTPTR_MAX, -1, -1, 0};

// Reports a code other than 0 with tlvu_error_print(). Returns the code.
uint32_t report_failure(const char* function, uint32_t code) {
    if (code != 0) tlvu_error_print("%s: ERR 0x%x\n", function, code);
    return code;
}

}  // namespace
}  // namespace quill

#define BLOCK(id, record, field)                                                            \
    {                                                                                       \
        id, sizeof(record::field), offsetof(record, field), TLVU_KIND_BLOCK, 0, 0, 0, 0, 0, \
            sizeof(record::field), -1, 0                                                    \
    }
#define STRING(id, record, field) \
    { id, 1, offsetof(record, field), TLVU_KIND_STRING, 0, 0, 0, 0, 0, sizeof(record::field), -1, 0 }
#define CONVERTED(id, record, field, to_tlv, to_struct, data_size)                       \
    {                                                                                    \
        id, sizeof(record::field), offsetof(record, field), TLVU_KIND_CONVERTED,         \
            reinterpret_cast<uintptr_t>(to_tlv), reinterpret_cast<uintptr_t>(to_struct), \
            reinterpret_cast<uintptr_t>(data_size), 0, 0, sizeof(record::field), -1, 0   \
    }

namespace quill {

// The public header declares the tables as arrays of bytes. These names are for the same symbols, with the
// type that the tables have.
extern const FieldTable<5> kNotificationTable __asm__("tlvu_security_notification_tbl")
    __attribute__((visibility("default")));
extern const FieldTable<2> kRoleSetTable __asm__("tlvu_role_set_tbl") __attribute__((visibility("default")));

const FieldTable<5> kNotificationTable = {
    {sizeof(security_notification), "tlvu_security_notification_t", 0, 0},
    {BLOCK(1, security_notification, type), STRING(2, security_notification, user_name),
     BLOCK(3, security_notification, number), BLOCK(4, security_notification, role_set),
     STRING(5, security_notification, text), kTerminator}};

const FieldTable<2> kRoleSetTable = {{sizeof(security_role_set), "tlvu_role_set_t", 0, 0},
                                     {BLOCK(1, security_role_set, count),
                                      CONVERTED(3, security_role_set, roles, security_roles_struct_to_tlv,
                                                security_roles_tlv_to_struct, security_roles_get_tlv_data_sz),
                                      kTerminator}};

}  // namespace quill

#undef BLOCK
#undef STRING
#undef CONVERTED

// The seven functions of a table.
#define WRAPPERS(NAME)                                                                                      \
    uint32_t tlvu_##NAME##_to_tlv(const void* structure, void** tlv, uint32_t* tlv_length) {                \
        return quill::report_failure(                                                                       \
            __func__, tlvu_table_convert_struct_to_tlv(tlvu_##NAME##_tbl, structure, tlv, tlv_length));     \
    }                                                                                                       \
    uint32_t tlvu_##NAME##_to_struct(const void* tlv, uint32_t tlv_length, void** structure,                \
                                     uint32_t mode) {                                                       \
        return quill::report_failure(__func__, tlvu_table_convert_tlv_to_struct(                            \
                                                   tlvu_##NAME##_tbl, tlv, tlv_length, structure, mode));   \
    }                                                                                                       \
    int32_t tlvu_##NAME##_get_struct_sz(const void* tlv, uint32_t tlv_length) {                             \
        uint32_t size = 0;                                                                                  \
        const uint32_t code = quill::report_failure(                                                        \
            __func__, tlvu_table_get_struct_size_from_tlv(tlvu_##NAME##_tbl, tlv, tlv_length, &size));      \
        return code == 0 ? static_cast<int32_t>(size) : -1;                                                 \
    }                                                                                                       \
    uint32_t tlvu_##NAME##_get_tlv_sz(const void* structure) {                                              \
        return tlvu_table_size(tlvu_##NAME##_tbl, structure);                                               \
    }                                                                                                       \
    uint32_t tlvu_##NAME##_get_field(const void* tlv, uint32_t tlv_length, uint32_t field_id, void** value, \
                                     uint32_t* value_length) {                                              \
        return tlvu_get_field(tlvu_##NAME##_tbl, tlv, tlv_length, field_id, value, value_length);           \
    }                                                                                                       \
    uint32_t tlvu_##NAME##_field_itr_init(const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr) {      \
        return tlvu_field_itr_init(tlvu_##NAME##_tbl, tlv, tlv_length, itr);                                \
    }                                                                                                       \
    uint32_t tlvu_##NAME##_field_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,            \
                                          uint32_t* value_length) {                                         \
        return tlvu_field_itr_get_next(itr, field_id, value, value_length);                                 \
    }

WRAPPERS(security_notification)
WRAPPERS(role_set)
