// Structures to TLV messages and back.
//
// locate() finds the field of a descriptor. It parses the whole message each time, so that success also means
// that the message is well-formed and has the field only once. The time is quadratic in the number of fields,
// which is small.
#include "quillplatform/tlv.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/block.h"
#include "base/byte_order.h"
#include "quillsecurity/notify.h"

namespace quill {
namespace {

struct FieldHeader {
    uint32_t id;
    uint32_t length;
};

struct Field {
    uint32_t id;
    uint32_t length;
    const uint8_t* value;
};

struct Message {
    const uint8_t* position;
    const uint8_t* end;

    Message(const void* bytes, uint32_t length)
        : position(static_cast<const uint8_t*>(bytes)), end(position + length) {}

    uint32_t next(Field& field) {
        if (position == end) return TLVU_NO_FIELD;
        FieldHeader header;
        if (static_cast<size_t>(end - position) < sizeof header) return TLVU_MALFORMED;
        memcpy(&header, position, sizeof header);
        field = {big_endian(header.id), big_endian(header.length), position + sizeof header};
        if (static_cast<size_t>(end - field.value) < field.length) return TLVU_MALFORMED;
        position = field.value + field.length;
        return TLVU_OK;
    }
};

const tlvu_table_header& header_of(const void* table) {
    return *static_cast<const tlvu_table_header*>(table);
}

// Iterates over the descriptors of a table, which end with one whose field_id is -1.
class Descriptors {
 public:
    explicit Descriptors(const void* table)
        : first_(reinterpret_cast<const tlvu_field_descriptor*>(&header_of(table) + 1)), last_(first_) {
        while (last_->field_id != -1) ++last_;
    }
    const tlvu_field_descriptor* begin() const { return first_; }
    const tlvu_field_descriptor* end() const { return last_; }

    // Returns null if the table has no such field.
    const tlvu_field_descriptor* find(uint32_t id) const {
        const auto* found = std::find_if(first_, last_, [id](const tlvu_field_descriptor& descriptor) {
            return static_cast<uint32_t>(descriptor.field_id) == id;
        });
        return found == last_ ? nullptr : found;
    }

 private:
    const tlvu_field_descriptor* first_;
    const tlvu_field_descriptor* last_;
};

uint32_t max_length(const tlvu_field_descriptor& descriptor) {
    return static_cast<uint32_t>(descriptor.largest_length);
}

// Casts the address of a field's converter to its type, one of three.
template <class Function>
Function* converter(uintptr_t address) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): tables store addresses as words
    return reinterpret_cast<Function*>(address);
}

// The size in bytes of a converted value in the message.
uint32_t converted_size(const tlvu_field_descriptor& descriptor) {
    return converter<uint32_t()>(descriptor.tlv_data_size)();
}

// Whether the length of a value in a message agrees with its descriptor.
bool length_is_valid(const tlvu_field_descriptor& descriptor, uint32_t length) {
    switch (descriptor.kind) {
    case TLVU_KIND_STRING:
        return length <= max_length(descriptor);
    case TLVU_KIND_CONVERTED:
        return length == converted_size(descriptor);
    default:
        return length == max_length(descriptor);
    }
}

// Finds the field of a descriptor. Returns TLVU_NO_FIELD if the message has none, TLVU_MALFORMED if it has
// two, a length is wrong or the message is not well-formed.
uint32_t locate(const tlvu_field_descriptor& descriptor, Message message, Field& found) {
    uint32_t result = TLVU_NO_FIELD;
    Field field{};
    uint32_t status;
    while ((status = message.next(field)) == TLVU_OK) {
        if (field.id != static_cast<uint32_t>(descriptor.field_id)) continue;
        if (result == TLVU_OK || !length_is_valid(descriptor, field.length)) return TLVU_MALFORMED;
        found = field;
        result = TLVU_OK;
    }
    return status == TLVU_NO_FIELD ? result : status;
}

// Copies between host order and big-endian, in either direction. Only elements of 2, 4 and 8 bytes are
// numbers and byte-swapped.
void copy_elements(uint8_t* to, const uint8_t* from, uint32_t length, intptr_t width) {
    const bool numbers = width == 2 || width == 4 || width == 8;
    if (!numbers || std::endian::native == std::endian::big) {
        memcpy(to, from, length);
        return;
    }
    const auto step = static_cast<uint32_t>(width);
    for (uint32_t at = 0; at + step <= length; at += step)
        std::reverse_copy(from + at, from + at + step, to + at);
}

uint32_t read_field(const tlvu_field_descriptor& descriptor, const Field& field, uint8_t* structure) {
    uint8_t* member = structure + descriptor.offset;
    switch (descriptor.kind) {
    case TLVU_KIND_STRING:
        memcpy(member, field.value, field.length);
        return TLVU_OK;
    case TLVU_KIND_CONVERTED:
        return converter<uint32_t(void*, const void*)>(descriptor.tlv_to_struct)(structure, field.value);
    default:
        copy_elements(member, field.value, field.length, descriptor.width);
        return TLVU_OK;
    }
}

uint32_t read_message(const void* table, const Message& message, uint8_t* structure) {
    for (const tlvu_field_descriptor& descriptor : Descriptors(table)) {
        Field field{};
        uint32_t status = locate(descriptor, message, field);
        if (status == TLVU_OK) status = read_field(descriptor, field, structure);
        if (status != TLVU_OK && status != TLVU_NO_FIELD) return status;
    }
    return TLVU_OK;
}

uint32_t value_size(const tlvu_field_descriptor& descriptor, const uint8_t* structure) {
    switch (descriptor.kind) {
    case TLVU_KIND_STRING:
        return static_cast<uint32_t>(
            strnlen(reinterpret_cast<const char*>(structure + descriptor.offset), max_length(descriptor)));
    case TLVU_KIND_CONVERTED:
        return converted_size(descriptor);
    default:
        return max_length(descriptor);
    }
}

// Writes exactly `size` bytes of value, or fails.
uint32_t write_value(const tlvu_field_descriptor& descriptor, const uint8_t* structure, uint8_t* value,
                     uint32_t size) {
    const uint8_t* member = structure + descriptor.offset;
    if (descriptor.kind != TLVU_KIND_CONVERTED) {
        copy_elements(value, member, size, descriptor.kind == TLVU_KIND_STRING ? 1 : descriptor.width);
        return TLVU_OK;
    }
    void* data = nullptr;
    uint32_t length = 0;
    uint32_t count = 0;
    const auto convert =
        converter<uint32_t(const void*, const void*, void**, uint32_t*, uint32_t*)>(descriptor.struct_to_tlv);
    const uint32_t status = convert(structure, &descriptor, &data, &length, &count);
    const Block<void> owned(data);
    if (status != TLVU_OK) return status;
    if (data == nullptr || length != size) return TLVU_MALFORMED;
    memcpy(value, data, size);
    return TLVU_OK;
}

uint32_t write_message(const void* table, const uint8_t* structure, uint8_t* position) {
    for (const tlvu_field_descriptor& descriptor : Descriptors(table)) {
        const uint32_t size = value_size(descriptor, structure);
        const FieldHeader header{big_endian(static_cast<uint32_t>(descriptor.field_id)), big_endian(size)};
        memcpy(position, &header, sizeof header);
        const uint32_t status = write_value(descriptor, structure, position + sizeof header, size);
        if (status != TLVU_OK) return status;
        position += sizeof header + size;
    }
    return TLVU_OK;
}

template <class... Pointers>
bool any_null(Pointers... pointers) {
    return ((pointers == nullptr) || ...);
}

void return_value(const Field& field, void** value, uint32_t* value_length) {
    *value = const_cast<uint8_t*>(field.value);
    *value_length = field.length;
}

}  // namespace
}  // namespace quill

uint32_t tlvu_table_size(const void* table, const void* structure) {
    using namespace quill;
    if (any_null(table, structure)) return 0;
    uint32_t size = 0;
    for (const tlvu_field_descriptor& descriptor : Descriptors(table))
        size += static_cast<uint32_t>(sizeof(FieldHeader)) +
                value_size(descriptor, static_cast<const uint8_t*>(structure));
    return size;
}

uint32_t tlvu_table_convert_struct_to_tlv(const void* table, const void* structure, void** tlv,
                                          uint32_t* tlv_length) {
    using namespace quill;
    if (any_null(table, structure, tlv, tlv_length)) return TLVU_BAD_ARGUMENT;
    const uint32_t size = tlvu_table_size(table, structure);
    Block<void> message(tlvu_malloc(size));
    if (message == nullptr) return TLVU_NO_MEMORY;
    const uint32_t status =
        write_message(table, static_cast<const uint8_t*>(structure), static_cast<uint8_t*>(message.get()));
    if (status != TLVU_OK) return status;
    *tlv = message.release();
    *tlv_length = size;
    return TLVU_OK;
}

uint32_t tlvu_table_convert_tlv_to_struct(const void* table, const void* tlv, uint32_t tlv_length,
                                          void** structure, uint32_t mode) {
    using namespace quill;
    if (any_null(table, tlv, structure) || mode > TLVU_MODE_FILL) return TLVU_BAD_ARGUMENT;
    if (mode == TLVU_MODE_FILL && *structure == nullptr) return TLVU_BAD_ARGUMENT;
    const size_t size = header_of(table).size;
    Block<void> filled(tlvu_malloc(static_cast<uint32_t>(size)));
    if (filled == nullptr) return TLVU_NO_MEMORY;
    memset(filled.get(), 0, size);
    const uint32_t status =
        read_message(table, Message(tlv, tlv_length), static_cast<uint8_t*>(filled.get()));
    if (status != TLVU_OK) return status;
    if (mode == TLVU_MODE_FILL)
        memcpy(*structure, filled.get(), size);
    else
        *structure = filled.release();
    return TLVU_OK;
}

uint32_t tlvu_table_get_struct_size_from_tlv(const void* table, const void* tlv, uint32_t tlv_length,
                                             uint32_t* size) {
    using namespace quill;
    if (any_null(table, tlv, size)) return TLVU_BAD_ARGUMENT;
    for (const tlvu_field_descriptor& descriptor : Descriptors(table)) {
        Field field{};
        if (locate(descriptor, Message(tlv, tlv_length), field) == TLVU_MALFORMED) return TLVU_MALFORMED;
    }
    *size = static_cast<uint32_t>(header_of(table).size);
    return TLVU_OK;
}

uint32_t tlvu_get_field(const void* table, const void* tlv, uint32_t tlv_length, uint32_t field_id,
                        void** value, uint32_t* value_length) {
    using namespace quill;
    if (any_null(table, tlv, value, value_length)) return TLVU_BAD_ARGUMENT;
    const tlvu_field_descriptor* descriptor = Descriptors(table).find(field_id);
    if (descriptor == nullptr) return TLVU_NO_FIELD;
    Field field{};
    const uint32_t status = locate(*descriptor, Message(tlv, tlv_length), field);
    if (status == TLVU_OK) return_value(field, value, value_length);
    return status;
}

uint32_t tlvu_field_itr_init(const void* table, const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr) {
    using namespace quill;
    if (any_null(table, tlv, itr)) return TLVU_BAD_ARGUMENT;
    const Message message(tlv, tlv_length);
    *itr = {table, message.position, message.end};
    return TLVU_OK;
}

uint32_t tlvu_field_itr_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                 uint32_t* value_length) {
    using namespace quill;
    if (any_null(itr, field_id, value, value_length)) return TLVU_BAD_ARGUMENT;
    Message message(itr->position, static_cast<uint32_t>(itr->end - itr->position));
    Field field{};
    uint32_t status;
    while ((status = message.next(field)) == TLVU_OK) {
        itr->position = message.position;
        const tlvu_field_descriptor* descriptor = Descriptors(itr->table).find(field.id);
        if (descriptor == nullptr) continue;
        if (!length_is_valid(*descriptor, field.length)) return TLVU_MALFORMED;
        *field_id = field.id;
        return_value(field, value, value_length);
        return TLVU_OK;
    }
    return status;
}

uint32_t tlv_array_size_get(const void* array, uint32_t index) {
    using namespace quill;
    if (array == nullptr) return 0;
    uint32_t size;
    memcpy(&size, array, sizeof size);
    flip(size);
    if (index == 0 || size < sizeof size) return index == 0 ? size : 0;
    Message elements(static_cast<const uint8_t*>(array) + sizeof size,
                     size - static_cast<uint32_t>(sizeof size));
    Field element{};
    while (index-- > 0)
        if (elements.next(element) != TLVU_OK) return 0;
    return static_cast<uint32_t>(sizeof(FieldHeader)) + element.length;
}
