// The requests that the daemon serves: one route for each record that a request type may carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace quill {

enum class Access { kEveryone, kAdministrators, kNobody };

struct Rights {
    Access read;   // GET_REQ and GETNEXT_REQ
    Access write;  // every other operation
};

// A field of a record that is checked before the handler is called.
struct Field {
    enum class Kind { kText, kCount };  // a count is in host order and not negative
    // Keys are checked with each operation, values only where a record is stored: handlers that read or
    // delete use keys only, and clients leave earlier contents in the other fields.
    enum class Use { kKey, kValue };

    Kind kind;
    Use use;
    size_t offset;
    size_t limit;  // of a text, the size of its field, in which it must end; of a count, its largest value
};

enum RouteFlag : uint32_t {
    kExplains = 1,      // the record is returned also if the handler fails: it explains the failure
    kRepairsFirst = 2,  // before a change, an interrupted change of an account is repaired
};

struct Route {
    uint32_t type;
    uint32_t size;  // of the record, exactly; a type with several kinds of records has a route for each
    uint32_t (*handle)(uint32_t store, uint32_t operation, void* record);
    Rights rights;
    std::span<const Field> fields = {};
    uint32_t flags = 0;  // enum RouteFlag
};

std::span<const Route> routes();

}  // namespace quill
