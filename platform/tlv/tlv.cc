// Structures to TLV messages and back.
//
// One function, locate(), decides what a message has to say about a field: it reads the message from end to
// end, so each answer stands for a message that is whole and has the field once. That is slow in the number
// of fields, of which there are few.
#include "quillplatform/tlv.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "common/block.h"
#include "common/byte_order.h"
#include "quillsecurity/notify.h"

namespace quill {
namespace {

struct FieldHead {
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
        FieldHead head;
        if (static_cast<size_t>(end - position) < sizeof head) return TLVU_MALFORMED;
        memcpy(&head, position, sizeof head);
        field = {big_endian(head.id), big_endian(head.length), position + sizeof head};
        if (static_cast<size_t>(end - field.value) < field.length) return TLVU_MALFORMED;
        position = field.value + field.length;
        return TLVU_OK;
    }
};

const tlvu_table_header& header_of(const void* table) {
    return *static_cast<const tlvu_table_header*>(table);
}

// The descriptors of a table, to be walked up to its terminator.
class Descriptors {
 public:
    explicit Descriptors(const void* table)
        : first_(reinterpret_cast<const tlvu_field_descriptor*>(&header_of(table) + 1)), last_(first_) {
        while (last_->field_id != -1) ++last_;
    }
    const tlvu_field_descriptor* begin() const { return first_; }
    const tlvu_field_descriptor* end() const { return last_; }

    // Null for a field that the table does not have.
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

uint32_t largest(const tlvu_field_descriptor& descriptor) {
    return static_cast<uint32_t>(descriptor.largest_length);
}

// A field's own converter, of one of three types.
template <class Function>
Function* converter(uintptr_t address) {
    return reinterpret_cast<Function*>(address);  // NOLINT(performance-no-int-to-ptr): tables hold words
}

// Bytes of a converted value.
uint32_t data_size(const tlvu_field_descriptor& descriptor) {
    return converter<uint32_t()>(descriptor.tlv_data_size)();
}

bool suits(const tlvu_field_descriptor& descriptor, uint32_t length) {
    switch (descriptor.kind) {
    case TLVU_KIND_STRING:
        return length <= largest(descriptor);
    case TLVU_KIND_CONVERTED:
        return length == data_size(descriptor);
    default:
        return length == largest(descriptor);
    }
}

// The one field of a whole message that a descriptor is about.
uint32_t locate(const tlvu_field_descriptor& descriptor, Message message, Field& found) {
    uint32_t answer = TLVU_NO_FIELD;
    Field field{};
    uint32_t status;
    while ((status = message.next(field)) == TLVU_OK) {
        if (field.id != static_cast<uint32_t>(descriptor.field_id)) continue;
        if (answer == TLVU_OK || !suits(descriptor, field.length)) return TLVU_MALFORMED;
        found = field;
        answer = TLVU_OK;
    }
    return status == TLVU_NO_FIELD ? answer : status;
}

// Between the host's order and big-endian, in either direction; only elements that are numbers turn.
void copy_block(uint8_t* to, const uint8_t* from, uint32_t length, intptr_t width) {
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
    uint8_t* place = structure + descriptor.offset;
    switch (descriptor.kind) {
    case TLVU_KIND_STRING:
        memcpy(place, field.value, field.length);
        return TLVU_OK;
    case TLVU_KIND_CONVERTED:
        return converter<uint32_t(void*, const void*)>(descriptor.tlv_to_struct)(structure, field.value);
    default:
        copy_block(place, field.value, field.length, descriptor.width);
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
            strnlen(reinterpret_cast<const char*>(structure + descriptor.offset), largest(descriptor)));
    case TLVU_KIND_CONVERTED:
        return data_size(descriptor);
    default:
        return largest(descriptor);
    }
}

// Writes exactly `size` bytes of value.
uint32_t write_value(const tlvu_field_descriptor& descriptor, const uint8_t* structure, uint8_t* value,
                     uint32_t size) {
    const uint8_t* place = structure + descriptor.offset;
    if (descriptor.kind != TLVU_KIND_CONVERTED) {
        copy_block(value, place, size, descriptor.kind == TLVU_KIND_STRING ? 1 : descriptor.width);
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
        const FieldHead head{big_endian(static_cast<uint32_t>(descriptor.field_id)), big_endian(size)};
        memcpy(position, &head, sizeof head);
        const uint32_t status = write_value(descriptor, structure, position + sizeof head, size);
        if (status != TLVU_OK) return status;
        position += sizeof head + size;
    }
    return TLVU_OK;
}

template <class... Pointers>
bool missing(Pointers... pointers) {
    return ((pointers == nullptr) || ...);
}

void hand_out(const Field& field, void** value, uint32_t* value_length) {
    *value = const_cast<uint8_t*>(field.value);
    *value_length = field.length;
}

}  // namespace
}  // namespace quill

uint32_t tlvu_table_size(const void* table, const void* structure) {
    using namespace quill;
    if (missing(table, structure)) return 0;
    uint32_t size = 0;
    for (const tlvu_field_descriptor& descriptor : Descriptors(table))
        size += static_cast<uint32_t>(sizeof(FieldHead)) +
                value_size(descriptor, static_cast<const uint8_t*>(structure));
    return size;
}

uint32_t tlvu_table_convert_struct_to_tlv(const void* table, const void* structure, void** tlv,
                                          uint32_t* tlv_length) {
    using namespace quill;
    if (missing(table, structure, tlv, tlv_length)) return TLVU_BAD_ARGUMENT;
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
    if (missing(table, tlv, structure) || mode > TLVU_MODE_FILL) return TLVU_BAD_ARGUMENT;
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
    if (missing(table, tlv, size)) return TLVU_BAD_ARGUMENT;
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
    if (missing(table, tlv, value, value_length)) return TLVU_BAD_ARGUMENT;
    const tlvu_field_descriptor* descriptor = Descriptors(table).find(field_id);
    if (descriptor == nullptr) return TLVU_NO_FIELD;
    Field field{};
    const uint32_t status = locate(*descriptor, Message(tlv, tlv_length), field);
    if (status == TLVU_OK) hand_out(field, value, value_length);
    return status;
}

uint32_t tlvu_field_itr_init(const void* table, const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr) {
    using namespace quill;
    if (missing(table, tlv, itr)) return TLVU_BAD_ARGUMENT;
    const Message message(tlv, tlv_length);
    *itr = {table, message.position, message.end};
    return TLVU_OK;
}

uint32_t tlvu_field_itr_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                 uint32_t* value_length) {
    using namespace quill;
    if (missing(itr, field_id, value, value_length)) return TLVU_BAD_ARGUMENT;
    Message message(itr->position, static_cast<uint32_t>(itr->end - itr->position));
    Field field{};
    uint32_t status;
    while ((status = message.next(field)) == TLVU_OK) {
        itr->position = message.position;
        const tlvu_field_descriptor* descriptor = Descriptors(itr->table).find(field.id);
        if (descriptor == nullptr) continue;
        if (!suits(*descriptor, field.length)) return TLVU_MALFORMED;
        *field_id = field.id;
        hand_out(field, value, value_length);
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
    return static_cast<uint32_t>(sizeof(FieldHead)) + element.length;
}
