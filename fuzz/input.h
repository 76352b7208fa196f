// An input as a row of numbers and texts, which are 0 and empty where it has ended.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

inline void require(bool holds) {
    if (!holds) abort();
}

class Input {
 public:
    Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    bool ended() const { return rest_.empty(); }

    std::string_view bytes(size_t wanted) {
        const std::string_view taken = rest_.substr(0, wanted);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    uint8_t byte() {
        const std::string_view taken = bytes(1);
        return taken.empty() ? 0 : static_cast<uint8_t>(taken[0]);
    }

    uint16_t half() {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }

    uint32_t word() {
        const uint32_t low = half();
        return low | static_cast<uint32_t>(half()) << 16;
    }

    // Everything that is left.
    std::string_view rest() { return bytes(rest_.size()); }

    // A few patches over a record: so the last byte of a long one takes no more input than its first. A patch
    // is a place, whose upper bit says to repeat one byte, a length, and the bytes.
    void patch(std::span<uint8_t> record) {
        for (unsigned left = byte() % 8; left > 0 && !ended() && !record.empty(); --left) {
            const uint16_t place = half();
            const size_t at = (place & 0x7fff) % record.size();
            const size_t length = std::min<size_t>(byte() * (place & 0x8000 ? 32u : 1u), record.size() - at);
            if ((place & 0x8000) != 0) {
                memset(record.data() + at, byte(), length);
            } else {
                const std::string_view text = bytes(length);
                memcpy(record.data() + at, text.data(), text.size());
            }
        }
    }

    template <class Record>
    Record record() {
        Record filled{};
        patch({reinterpret_cast<uint8_t*>(&filled), sizeof filled});
        return filled;
    }

 private:
    std::string_view rest_;
};
