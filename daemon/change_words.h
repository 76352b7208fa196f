// What requests ask for, in words for the log of changes: a table with a row for each type of request.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace quill {

// What is asked for: the record of the request, and the one that is stored or null.
struct Change {
    uint32_t operation;
    const void* record;
    const void* stored;
};

// The same thing in two forms: "created" for the line of what was done, "creation" for a refusal. Both are
// empty where the operation changes nothing.
struct Deed {
    Deed() = default;
    Deed(std::string either)
        : done(either), asked(std::move(either)) {}  // NOLINT(google-explicit-constructor)
    Deed(std::string when_done, std::string when_asked)
        : done(std::move(when_done)), asked(std::move(when_asked)) {}

    std::string done, asked;
};

// How requests of one type are put into words. The functions take records of the type's size, in host order,
// that need not have been checked; they put no secret into words, and nothing that log_safe() would not
// leave.
struct Description {
    uint32_t type;
    bool shows_old_value;
    std::string (*object)(const void* record);  // "service telnet"
    Deed (*deed)(const Change& change);         // "0 to 1"; of SET_REQ and DEL_REQ
};

// Null for a type that has none.
const Description* find_description(uint32_t type);

}  // namespace quill
