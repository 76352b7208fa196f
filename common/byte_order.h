// Words in host and in big-endian order. On the wire and in the store words are big-endian; a handler turns
// them where they stand, so that the record it was given is also the value that it stores.
#pragma once

#include <bit>
#include <cstdint>

namespace quill {

constexpr uint32_t big_endian(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// Its own inverse.
inline void flip(uint32_t& word) { word = big_endian(word); }
inline void flip(int32_t& word) { word = static_cast<int32_t>(big_endian(static_cast<uint32_t>(word))); }

}  // namespace quill
