// TLV messages, with both field tables, and TLV arrays: writing what was read and reading it again yields the
// same, and all functions agree on whether a message is valid.
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "fuzz/input.h"
#include "quillplatform/tlv.h"
#include "quillsecurity.h"

namespace {

// Reads every byte, so that the sanitizer sees any outside the message.
uint32_t sum(const void* value, uint32_t length) {
    uint32_t total = 0;
    for (uint32_t i = 0; i < length; ++i) total += static_cast<const uint8_t*>(value)[i];
    return total;
}

void use(const void* table, const uint8_t* data, uint32_t size) {
    void* first = nullptr;
    const bool readable =
        tlvu_table_convert_tlv_to_struct(table, data, size, &first, TLVU_MODE_ALLOCATE) == 0;
    uint32_t struct_size = 0, length = 0, id = 0;
    require(readable == (tlvu_table_get_struct_size_from_tlv(table, data, size, &struct_size) == 0));

    volatile uint32_t total = 0;
    void* value = nullptr;
    for (uint32_t wanted = 0; wanted < 8; ++wanted)
        if (tlvu_get_field(table, data, size, wanted, &value, &length) == 0)
            total = total + sum(value, length);
    tlvu_field_itr itr;
    if (tlvu_field_itr_init(table, data, size, &itr) == 0)
        while (tlvu_field_itr_get_next(&itr, &id, &value, &length) == 0) total = total + sum(value, length);

    // Bytes after a terminator are not in a message, so the structures compared are the second and the third.
    void* blocks[4] = {first};
    for (int i = 0; readable && i < 2; ++i) {
        free(blocks[3]);
        require(tlvu_table_convert_struct_to_tlv(table, blocks[i], &blocks[3], &length) == 0);
        require(tlvu_table_convert_tlv_to_struct(table, blocks[3], length, &blocks[i + 1],
                                                 TLVU_MODE_ALLOCATE) == 0);
    }
    require(!readable || memcmp(blocks[1], blocks[2], struct_size) == 0);
    for (void* block : blocks) free(block);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const void* table : {tlvu_security_notification_tbl, tlvu_role_set_tbl})
        use(table, data, static_cast<uint32_t>(size));
    if (size < sizeof(uint32_t) || tlv_array_size_get(data, 0) > size) return 0;
    uint32_t left = tlv_array_size_get(data, 0);
    for (uint32_t index = 1, element; (element = tlv_array_size_get(data, index)) != 0; ++index) {
        require(element >= 8 && element <= left);
        left -= element;
    }
    return 0;
}
