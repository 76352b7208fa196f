// Access of the handlers to the persistent store: fetching, walking, storing and deleting the values of keys.
// A value is a range of bytes of the request record, chosen by the handler.
//
// Statuses of the store are returned unchanged unless a function says otherwise.
#pragma once

#include <cstdint>

#include "base/store_key.h"
#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {

// The run of bytes of a request record that is its value in the store.
using Run = pss_descriptor;

// Copies the value of the key to `value`. A longer stored value is cut; behind a shorter one the rest is
// zero. Returns SECURITY_PSS_NO_KEY if there is no such key. On failure `value` is unchanged.
uint32_t fetch(uint32_t handle, const Key& key, Run value);

// Creates or replaces the value of the key.
uint32_t store(uint32_t handle, const Key& key, Run value);

// Deletes the key. Returns SECURITY_PSS_NO_KEY if there is no such key.
uint32_t erase(uint32_t handle, const Key& key);

// Returns true for the four operations that handlers know. Any other does nothing and returns 0.
constexpr bool is_record_operation(uint32_t operation) {
    return operation >= GET_REQ && operation <= DEL_REQ;
}

// Returns `mapped` in place of SECURITY_PSS_NO_KEY, any other status unchanged.
constexpr uint32_t no_key_as(uint32_t mapped, uint32_t status) {
    return status == SECURITY_PSS_NO_KEY ? mapped : status;
}

// One step of a walk. `key` is the first key after the start key, of any table, whether the start key exists
// or not; null if there is none. It belongs to the store and is valid until the next call on the handle.
struct Step {
    uint32_t status;
    const pss_descriptor* key;

    bool failed() const { return status != SECURITY_OK && status != SECURITY_PSS_NO_KEY; }
};
Step find_next(uint32_t handle, const Key& start);

// Reads the record that find_next() found: the name or number from its key, and its value as by fetch(). On
// failure both are unchanged.
uint32_t read_found(uint32_t handle, const pss_descriptor& found, char (&name)[kNameField], Run value);
uint32_t read_found(uint32_t handle, const pss_descriptor& found, int32_t& number, Run value);

// GETNEXT_REQ: reads the record of the first key after `start`. Returns `end` if the table has no further
// key. On failure the record is unchanged.
template <class Identity>
uint32_t fetch_next(uint32_t handle, const Key& start, Identity& identity, Run value, uint32_t end) {
    const Step step = find_next(handle, start);
    if (step.failed()) return step.status;
    if (!start.same_table(step.key)) return end;
    return read_found(handle, *step.key, identity, value);
}

}  // namespace quill
