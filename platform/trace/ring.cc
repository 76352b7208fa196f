// Traces: the history, a ring buffer of fixed slots, and messages on standard error.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>

#include "base/printable.h"
#include "quillplatform/trace.h"

const char* sdwrap_dbg_modname = "security";

namespace quill {
namespace {

constexpr size_t kSlots = 512;
constexpr size_t kSlotBytes = 516;  // the library's longest event: a subtype and 512 bytes of text

struct Slot {
    time_t seconds;
    uint32_t length;
    unsigned char event[kSlotBytes];
};

struct Ring {
    std::mutex mutex;
    uint64_t written = 0;
    std::array<Slot, kSlots> slots;
};

Ring ring;

struct Switches {
    bool history;
    bool debug;
};

Switches read_switches() {
    const char* chosen = getenv("QUILL_TRACE");
    if (chosen == nullptr) chosen = "history";
    return {strcmp(chosen, "off") != 0, strcmp(chosen, "debug") == 0};
}

const Switches& switches() {
    static const Switches kSwitches = read_switches();
    return kSwitches;
}

bool write_all(int descriptor, const char* bytes, size_t length) {
    while (length != 0) {
        const ssize_t written = write(descriptor, bytes, length);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Writes one line: the time and the text. Control characters and bytes that are not UTF-8 are written as
// \xNN, so that they neither end the line nor control a terminal.
bool dump_slot(int descriptor, const Slot& slot) {
    constexpr size_t kEscape = 4;
    char line[40 + kEscape * kSlotBytes];
    struct tm when;
    gmtime_r(&slot.seconds, &when);
    size_t length = strftime(line, sizeof line, "%Y-%m-%dT%H:%M:%SZ ", &when);
    constexpr uint32_t kText = sizeof(uint32_t);
    std::string_view rest(reinterpret_cast<const char*>(slot.event) + kText,
                          slot.length > kText ? slot.length - kText : 0);
    rest = rest.substr(0, rest.find('\0'));
    while (!rest.empty()) {
        const size_t shown = printable_length(rest);
        if (shown != 0)
            memcpy(line + length, rest.data(), shown);
        else
            snprintf(line + length, kEscape + 1, "\\x%02x", static_cast<unsigned char>(rest[0]));
        length += shown != 0 ? shown : kEscape;
        rest.remove_prefix(std::max<size_t>(shown, 1));
    }
    line[length++] = '\n';
    return write_all(descriptor, line, length);
}

}  // namespace
}  // namespace quill

uint32_t sdwrap_hist_event_subtype_check(uint32_t, uint32_t) { return quill::switches().history ? 0 : 1; }

uint32_t sdwrap_hist_event(uint32_t, uint32_t length, const void* event) {
    auto& ring = quill::ring;
    const std::lock_guard lock(ring.mutex);
    quill::Slot& slot = ring.slots[ring.written++ % quill::kSlots];
    slot.seconds = time(nullptr);
    slot.length = std::min<uint32_t>(length, quill::kSlotBytes);
    memcpy(slot.event, event, slot.length);
    return 0;
}

uint32_t sdwrap_chk_int(uint32_t, uint32_t, uint32_t, uint32_t) { return quill::switches().debug ? 1 : 0; }

void buginf(uint32_t, const char* module_name, uint32_t, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "%s: ", module_name);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
}

int32_t quill_trace_dump(int32_t descriptor) {
    auto& ring = quill::ring;
    const std::lock_guard lock(ring.mutex);
    const uint64_t kept = std::min<uint64_t>(ring.written, quill::kSlots);
    for (uint64_t i = ring.written - kept; i < ring.written; ++i)
        if (!quill::dump_slot(descriptor, ring.slots[i % quill::kSlots])) return -1;
    return 0;
}
