// What the daemon serves: one row for each record that a request type may carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace quill {

enum class Access { kEveryone, kAdministrators, kNobody };

// A text of a record, which must end inside its field.
struct TextField {
    size_t offset;
    size_t size;
};

// A count of a record, in host order, which must lie between 0 and `largest`.
struct CountField {
    size_t offset;
    int32_t largest;
};

struct Route {
    uint32_t type;
    uint32_t size;  // of the record, exactly; a type that carries several kinds has a row for each
    uint32_t (*handle)(uint32_t store, uint32_t operation, void* record);
    Access read;   // GET_REQ and GETNEXT_REQ
    Access write;  // every other operation
    std::span<const TextField> texts = {};
    std::span<const CountField> counts = {};
    const char* audited = nullptr;   // what changes, for the log; whose it is stands in the first text
    bool explains_failures = false;  // the record goes back with a failure of the handler too
};

std::span<const Route> routes();

}  // namespace quill
