// 32-bit words in host and in big-endian order. Words are big-endian in the store and, where listed, on the
// wire. Handlers byte-swap the words of their record in place, so that the record itself is the stored value.
#pragma once

#include <bit>
#include <cstdint>

namespace quill {

// Converts a word from host to big-endian order, or back.
constexpr uint32_t big_endian(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// The same in place.
inline void flip(uint32_t& word) { word = big_endian(word); }
inline void flip(int32_t& word) { word = static_cast<int32_t>(big_endian(static_cast<uint32_t>(word))); }

}  // namespace quill
