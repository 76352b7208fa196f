// What is under way: one entry in the store, written before the first step of a change and erased after the
// last one. A daemon that finds an entry when it starts undoes or finishes what its predecessor began.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "base/byte_order.h"
#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {

// `Entry` is stored byte for byte, with its words in host order: only this machine reads it again.
template <class Entry>
class Journal {
    static_assert(std::is_standard_layout_v<Entry>);

 public:
    // `number` is the entry's key, behind those of all tables of records (0x10000 and up).
    explicit Journal(uint32_t number) : key_(big_endian(number)) {}

    uint32_t write(uint32_t store, Entry& entry) {
        const pss_descriptor value{&entry, sizeof entry};
        return pss2_store(store, descriptor(), &value);
    }
    // Returns SECURITY_PSS_NO_KEY if nothing is under way, and SECURITY_ERR_REQUEST_SIZE if the entry is of
    // another version of the daemon.
    uint32_t find(uint32_t store, Entry& entry) {
        uint32_t status = SECURITY_OK;
        const pss_descriptor* found = pss2_fetch(store, descriptor(), &status);
        if (status != SECURITY_OK) return status;
        if (found == nullptr || found->length != sizeof entry) return SECURITY_ERR_REQUEST_SIZE;
        memcpy(static_cast<void*>(&entry), found->bytes, sizeof entry);
        return SECURITY_OK;
    }
    uint32_t erase(uint32_t store) { return pss2_delete(store, descriptor(), 1); }

 private:
    const pss_descriptor* descriptor() {
        descriptor_ = {&key_, sizeof key_};
        return &descriptor_;
    }

    uint32_t key_;
    pss_descriptor descriptor_{};
};

}  // namespace quill
