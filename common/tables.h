// The tables of the store, by the number that begins their keys.
#pragma once

#include <cstdint>

namespace quill {

constexpr uint32_t kServicesTable = 1;  // number key: code; value: one big-endian word

}  // namespace quill
