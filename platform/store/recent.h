// Values that were read or written lately, by key: most reads ask again for one of a few.
//
// Records end in unused fields for the most part, so the zeros at the end of keys and values are only
// counted. Whatever is dropped is wiped first, for values are secrets. Nothing here fails: where memory runs
// out there is just less to find.
#pragma once

#include <string.h>

#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "quillplatform/pss.h"

namespace quill {

class Recent {
 public:
    Recent() = default;
    ~Recent() { clear(); }
    Recent(const Recent&) = delete;
    Recent& operator=(const Recent&) = delete;

    // False where it is not known.
    bool find(std::string_view key, std::string& value) {
        const auto found = values_.find(Name(key).view());
        if (found == values_.end()) return false;
        value.assign(found->second.bytes).resize(found->second.length, '\0');
        return true;
    }

    void keep(std::string_view key, std::string_view value) noexcept {
        const std::string_view bytes = without_zeros(value);
        forget(key);
        const Name name(key);
        const size_t size = size_of(name.view(), bytes);
        if (size > kMost / 16) return;
        if (size_ + size > kMost) clear();
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

    void forget(std::string_view key) noexcept {
        const auto found = values_.find(Name(key).view());
        if (found == values_.end()) return;
        size_ -= size_of(found->first, found->second.bytes);
        wipe(found->second);
        values_.erase(found);
    }

 private:
    static constexpr size_t kMost = 2 << 20;  // bytes
    static constexpr size_t kNode = 144;      // what a pair takes besides, about

    struct Value {
        std::string bytes;
        size_t length = 0;
    };
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };

    static size_t size_of(std::string_view name, std::string_view bytes) {
        return kNode + name.size() + bytes.size();
    }
    static std::string_view without_zeros(std::string_view bytes) {
        return bytes.substr(0, bytes.find_last_not_of('\0') + 1);
    }

    // A key's length, then the key: what stands for it here.
    class Name {
     public:
        explicit Name(std::string_view key) {
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

    // All at once and seldom, so that nothing has to be noted with each find.
    void clear() noexcept {
        for (auto& [key, value] : values_) wipe(value);
        values_.clear();
        size_ = 0;
    }

    std::unordered_map<std::string, Value, Hash, std::equal_to<>> values_;
    size_t size_ = 0;
};

}  // namespace quill
