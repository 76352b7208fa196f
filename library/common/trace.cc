#include "library/common/trace.h"

#include <algorithm>

namespace quill {
namespace {

constexpr uint32_t kTraceModule = 0x730000;

char status_buffer[100];

}  // namespace

bool history_wanted() { return sdwrap_hist_event_subtype_check(kTraceModule, kTraceSubtype) == 0; }

bool debug_wanted() { return sdwrap_chk_int(kTraceSubtype, 0, 0, 1) != 0; }

void record(TraceEvent& event, int written) {
    if (written < 0) return;
    const auto length = std::min(static_cast<uint32_t>(written), static_cast<uint32_t>(kTraceText - 1));
    event.subtype = kTraceSubtype;
    // 5 bytes more than the text: the subtype before it and the terminator.
    sdwrap_hist_event(kTraceModule, length + 5, &event);
}

const char* status_text(uint32_t status) {
    snprintf(status_buffer, sizeof status_buffer, "<[%x]>", status);
    return status_buffer;
}

}  // namespace quill
