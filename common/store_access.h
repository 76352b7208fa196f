// The store as all handlers see it: typed keys, and records that are fetched, walked, stored and erased.
//
// A key is a big-endian table number, then a name in a zero-filled field, a big-endian number, or nothing.
// Keys of one table are neighbours in the store's order, so a walk ends where the table number changes. A
// value is a run of the request record itself: the handler says where it starts and how long it is.
#pragma once

#include <cstdint>

#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {

constexpr uint32_t kNameField = 128;

class Key {
 public:
    explicit Key(uint32_t table);
    Key(uint32_t table, uint32_t number);
    Key(uint32_t table, int32_t number) : Key(table, static_cast<uint32_t>(number)) {}
    // At most 127 characters of the name take part, so a field without a terminator is read no further.
    Key(uint32_t table, const char (&name)[kNameField]);

    pss_descriptor descriptor() const { return {const_cast<unsigned char*>(bytes_), length_}; }

    // Whether a key found in the store is of the same table.
    bool same_table(const pss_descriptor* found) const;

 private:
    unsigned char bytes_[sizeof(uint32_t) + kNameField];
    uint32_t length_;
};

// Bytes of a request record that make a value.
using Run = pss_descriptor;

// The value of the key, copied into `value`; where the stored one is shorter, the rest is zero. The run is
// written only with SECURITY_OK.
uint32_t fetch(uint32_t handle, const Key& key, Run value);

uint32_t store(uint32_t handle, const Key& key, Run value);

// SECURITY_PSS_NO_KEY when there is no such key; see no_key_as().
uint32_t erase(uint32_t handle, const Key& key);

// Whether a handler does anything at all: other operations touch no record and answer 0.
constexpr bool touches_record(uint32_t operation) { return operation >= GET_REQ && operation <= DEL_REQ; }

// The same status, but for the store's "no such key", which becomes the given one.
constexpr uint32_t no_key_as(uint32_t mapped, uint32_t status) {
    return status == SECURITY_PSS_NO_KEY ? mapped : status;
}

// One step of a walk: the first key after `start`, whether `start` itself exists or not, and whatever its
// table. The key is null where there is none; a status other than SECURITY_OK and SECURITY_PSS_NO_KEY is a
// failure of the store.
struct Step {
    uint32_t status;
    const pss_descriptor* key;

    bool failed() const { return status != SECURITY_OK && status != SECURITY_PSS_NO_KEY; }
};
Step step_past(uint32_t handle, const Key& start);

// The record under the cursor, reached by a step that did not fail: its name or number and its value. All
// are written, or with a failure none.
uint32_t take(uint32_t handle, const pss_descriptor& found, char (&name)[kNameField], Run value);
uint32_t take(uint32_t handle, const pss_descriptor& found, int32_t& number, Run value);

// A whole GETNEXT_REQ: steps past `start`, takes the record found there, or answers `end` when the table has
// no further one.
template <class Identity>
uint32_t fetch_next(uint32_t handle, const Key& start, Identity& identity, Run value, uint32_t end) {
    const Step step = step_past(handle, start);
    if (step.failed()) return step.status;
    if (!start.same_table(step.key)) return end;
    return take(handle, *step.key, identity, value);
}

}  // namespace quill
