// A cache of values that were recently read or written, by key: most reads are of a few records.
//
// Most records end in unused fields, so trailing zeros of keys and values are counted rather than stored.
// Values are secrets and are wiped before their memory is released. When memory runs out, the cache is
// emptied.
#pragma once

#include <string.h>

#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "quillplatform/pss.h"

namespace quill {

class ValueCache {
 public:
    ValueCache() = default;
    ~ValueCache() { clear(); }
    ValueCache(const ValueCache&) = delete;
    ValueCache& operator=(const ValueCache&) = delete;

    // Stores the value in `value` and returns true, or returns false if it is not in the cache. Throws
    // std::bad_alloc.
    bool find(std::string_view key, std::string& value) {
        const auto found = values_.find(CacheKey(key).view());
        if (found == values_.end()) return false;
        value.assign(found->second.bytes).resize(found->second.length, '\0');
        return true;
    }

    // Adds or replaces a value. Values of more than a 16th of the cache's capacity are left out.
    void put(std::string_view key, std::string_view value) noexcept {
        const std::string_view bytes = without_zeros(value);
        erase(key);
        const CacheKey name(key);
        const size_t size = size_of(name.view(), bytes);
        if (size > kCapacity / 16) return;
        if (size_ + size > kCapacity) clear();
        try {
            Value& kept = values_[std::string(name.view())];
            size_ += size_of(name.view(), {});
            kept.bytes = bytes;
            kept.length = value.size();
            size_ += bytes.size();
        } catch (const std::bad_alloc&) {
            clear();
        }
    }

    void erase(std::string_view key) noexcept {
        const auto found = values_.find(CacheKey(key).view());
        if (found == values_.end()) return;
        size_ -= size_of(found->first, found->second.bytes);
        wipe(found->second);
        values_.erase(found);
    }

 private:
    static constexpr size_t kCapacity = 2 << 20;  // bytes
    static constexpr size_t kNodeOverhead = 144;  // bytes that an entry takes besides key and value, roughly

    struct Value {
        std::string bytes;
        size_t length = 0;
    };
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };

    static size_t size_of(std::string_view name, std::string_view bytes) {
        return kNodeOverhead + name.size() + bytes.size();
    }
    static std::string_view without_zeros(std::string_view bytes) {
        return bytes.substr(0, bytes.find_last_not_of('\0') + 1);
    }

    // The key's length, then the key without trailing zeros.
    class CacheKey {
     public:
        explicit CacheKey(std::string_view key) {
            const std::string_view bytes = without_zeros(key);
            const auto length = static_cast<uint16_t>(key.size());
            memcpy(bytes_, &length, sizeof length);
            memcpy(bytes_ + sizeof length, bytes.data(), bytes.size());
            size_ = sizeof length + bytes.size();
        }
        std::string_view view() const { return {bytes_, size_}; }

     private:
        char bytes_[sizeof(uint16_t) + PSS_MAX_KEY];
        size_t size_;
    };

    static void wipe(Value& value) { explicit_bzero(value.bytes.data(), value.bytes.size()); }

    // The cache is emptied when it is full: this happens rarely, and no use of an entry has to be recorded.
    void clear() noexcept {
        for (auto& [key, value] : values_) wipe(value);
        values_.clear();
        size_ = 0;
    }

    std::unordered_map<std::string, Value, Hash, std::equal_to<>> values_;
    size_t size_ = 0;
};

}  // namespace quill
