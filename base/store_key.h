// Keys of the persistent store.
//
// A key is a big-endian table number (base/tables.h), followed by a name in a zero-filled field, a big-endian
// number, or nothing. The store orders keys by their bytes, so the keys of a table are adjacent, and a walk
// ends where the table number changes.
#pragma once

#include <cstdint>
#include <cstring>

#include "base/byte_order.h"
#include "base/text_field.h"
#include "quillplatform/pss.h"

namespace quill {

constexpr uint32_t kNameField = 128;

class Key {
 public:
    explicit Key(uint32_t table) { put(0, table); }
    Key(uint32_t table, uint32_t number) : Key(table) {
        put(sizeof table, number);
        length_ = sizeof table + sizeof number;
    }
    Key(uint32_t table, int32_t number) : Key(table, static_cast<uint32_t>(number)) {}
    // Uses at most 127 characters of the name, also if the field has no terminator.
    Key(uint32_t table, const char (&name)[kNameField]) : Key(table) {
        memcpy(bytes_ + sizeof table, name, strnlen(name, kNameField - 1));
        length_ = sizeof table + kNameField;
    }

    pss_descriptor descriptor() const { return {const_cast<unsigned char*>(bytes_), length_}; }

    // Returns true if a key found in the store is of the same table; false for null.
    bool same_table(const pss_descriptor* found) const {
        return found != nullptr && found->length >= sizeof(uint32_t) &&
               memcmp(found->bytes, bytes_, sizeof(uint32_t)) == 0;
    }

    // Copies the name of a key found in the store. Returns false, and `name` is unchanged, if that key is of
    // another table or has no name field; also for null.
    bool read_name(const pss_descriptor* found, char (&name)[kNameField]) const {
        if (!same_table(found) || found->length != sizeof bytes_) return false;
        memcpy(name, static_cast<const unsigned char*>(found->bytes) + sizeof(uint32_t), sizeof name);
        terminate(name);
        return true;
    }

 private:
    void put(size_t offset, uint32_t word) {
        const uint32_t bytes = big_endian(word);
        memcpy(bytes_ + offset, &bytes, sizeof bytes);
    }

    unsigned char bytes_[sizeof(uint32_t) + kNameField]{};
    uint32_t length_ = sizeof(uint32_t);
};

}  // namespace quill
