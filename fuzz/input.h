// Takes numbers and texts from an input. At its end, numbers are 0 and texts are empty.
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

    // Takes all that is left.
    std::string_view rest() { return bytes(rest_.size()); }

    // Overwrites up to seven ranges of a record, so that a short input can change any byte of a long record.
    // A range is an offset, a length, and the bytes, or one byte to repeat if the offset's upper bit is set.
    void patch(std::span<uint8_t> record) {
        for (unsigned left = byte() % 8; left > 0 && !ended() && !record.empty(); --left) {
            const uint16_t offset = half();
            const size_t at = (offset & 0x7fff) % record.size();
            const size_t length = std::min<size_t>(byte() * (offset & 0x8000 ? 32u : 1u), record.size() - at);
            if ((offset & 0x8000) != 0) {
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
