// Role and locale lists of accounts, as requests see them: an account without a stored list has an empty one,
// names must exist, and a removal takes one name out of the list.
#pragma once

#include <cstdint>

namespace quill {

uint32_t role_list(uint32_t store, uint32_t operation, void* record);
uint32_t locale_list(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
