// Bytes of any number that may be secret.
#pragma once

#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace quill {

// Wipes memory before it is freed.
template <class Type>
struct WipingAllocator : std::allocator<Type> {
    WipingAllocator() = default;
    template <class Other>
    explicit WipingAllocator(const WipingAllocator<Other>&) {}

    void deallocate(Type* block, size_t count) {
        explicit_bzero(static_cast<void*>(block), count * sizeof(Type));
        std::allocator<Type>::deallocate(block, count);
    }
};

// A vector that wipes each block of memory before it frees it: also the old block when it grows.
using SecretBytes = std::vector<char, WipingAllocator<char>>;

inline std::string_view view(const SecretBytes& bytes) { return {bytes.data(), bytes.size()}; }

inline void append(SecretBytes& bytes, std::string_view more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace quill
