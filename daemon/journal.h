// A journal entry for a change of several steps: it is stored before the first step and erased after the last
// one. A daemon that finds an entry at its start undoes or completes what its predecessor began.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "base/store_key.h"
#include "base/tables.h"
#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {

// `Entry` is stored byte for byte, with its words in host order: only this machine reads it again. Its layout
// is a format of the store, which an updated daemon has to read.
template <class Entry>
class Journal {
    static_assert(std::is_standard_layout_v<Entry>);

 public:
    // `table` is the number of this journal in base/tables.h.
    explicit Journal(uint32_t table) : key_(table) {}

    // Returns 0 or the failure of the store, which then has the entry that it had before.
    uint32_t write(uint32_t store, const Entry& entry) const {
        const pss_descriptor key = key_.descriptor(), value{const_cast<Entry*>(&entry), sizeof entry};
        return pss2_store(store, &key, &value);
    }
    // Returns SECURITY_PSS_NO_KEY if there is no entry, and SECURITY_ERR_REQUEST_SIZE if the entry is of
    // another version of the daemon. On failure `entry` is unchanged.
    uint32_t find(uint32_t store, Entry& entry) const {
        const pss_descriptor key = key_.descriptor();
        uint32_t status = SECURITY_OK;
        const pss_descriptor* found = pss2_fetch(store, &key, &status);
        if (status != SECURITY_OK) return status;
        if (found == nullptr || found->length != sizeof entry) return SECURITY_ERR_REQUEST_SIZE;
        memcpy(static_cast<void*>(&entry), found->bytes, sizeof entry);
        return SECURITY_OK;
    }
    // Returns SECURITY_PSS_NO_KEY if there is no entry.
    uint32_t erase(uint32_t store) const {
        const pss_descriptor key = key_.descriptor();
        return pss2_delete(store, &key, 1);
    }

 private:
    const Key key_;
};

}  // namespace quill
