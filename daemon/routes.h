// What the daemon serves: one row for each record that a request type may carry.
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

// A field of a record that is checked before a handler sees it.
struct Field {
    enum class Kind { kText, kCount };
    // A key is checked with each operation. Reading and deleting use keys alone, and clients leave in the
    // other fields whatever was there before.
    enum class Use { kKey, kValue };

    Kind kind;
    Use use;
    size_t offset;
    size_t limit;  // of a text, the bytes of its field, in which it must end; of a count, its largest value
};

enum RouteFlag : uint32_t {
    kExplains = 1,    // the record goes back with a failure of the handler too
    kOfAccounts = 2,  // changed only when no interrupted change of an account is left to be repaired
};

struct Route {
    uint32_t type;
    uint32_t size;  // of the record, exactly; a type that carries several kinds has a row for each
    uint32_t (*handle)(uint32_t store, uint32_t operation, void* record);
    Rights rights;
    std::span<const Field> fields = {};  // texts and counts; a count is in host order and not below 0
    uint32_t flags = 0;                  // enum RouteFlag
};

std::span<const Route> routes();

}  // namespace quill
