// The words of the change log: a table with a row for each request type.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace quill {

// A change that a request asks for.
struct Change {
    uint32_t operation;
    const void* record;  // of the request
    const void* stored;  // the record that is stored now; null if there is none or it is not known
};

// A change in two forms: "created" for a success, "creation" for a refusal. Both are empty if the operation
// changes nothing.
struct Phrase {
    Phrase() = default;
    Phrase(std::string both)
        : done(both), requested(std::move(both)) {}  // NOLINT(google-explicit-constructor)
    Phrase(std::string when_done, std::string when_requested)
        : done(std::move(when_done)), requested(std::move(when_requested)) {}

    std::string done, requested;
};

// Describes the requests of one type. The functions take records of the type's size, in host order, whose
// fields need not have been checked. Their texts contain no secret, and outside text as log_safe() returns
// it.
struct Description {
    uint32_t type;
    bool shows_old_value;
    std::string (*object)(const void* record);  // "service telnet"
    Phrase (*phrase)(const Change& change);     // "0 to 1"; for SET_REQ and DEL_REQ
};

// Returns null for a type without a description.
const Description* find_description(uint32_t type);

}  // namespace quill
