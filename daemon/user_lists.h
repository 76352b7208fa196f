// Handlers of the requests for role and locale lists of accounts. An account without a stored list has an
// empty one. GET_REQ reads the list; SET_REQ replaces it, by names that must exist; DEL_REQ removes the one
// name of the record from it.
#pragma once

#include <cstdint>

namespace quill {

uint32_t role_list(uint32_t store, uint32_t operation, void* record);
uint32_t locale_list(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
