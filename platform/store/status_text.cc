// Texts of statuses, generated from the lists that define them.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "quillplatform/pss.h"
#include "quillsecurity/status.h"

namespace {

struct StatusText {
    uint32_t status;
    const char* text;
};

constexpr StatusText kTexts[] = {
#define ROW(name, value, text) {value, text},
    SECURITY_STATUS_LIST(ROW) PSS_STATUS_LIST(ROW)
#undef ROW
};

char text_buffer[160];

}  // namespace

const char* syserr2str(uint32_t status) {
    const auto* row =
        std::find_if(std::begin(kTexts), std::end(kTexts),
                     [status](const StatusText& candidate) { return candidate.status == status; });
    if (row != std::end(kTexts)) return row->text;

    constexpr uint32_t kErrno = 0xfff;
    if ((status & ~kErrno) == SECURITY_ERR_TRANSPORT) {
        const char* reason = strerrordesc_np(static_cast<int>(status & kErrno));
        snprintf(text_buffer, sizeof text_buffer, "the request could not be delivered: %s",
                 reason != nullptr ? reason : "unknown reason");
    } else {
        snprintf(text_buffer, sizeof text_buffer, "unknown status %#x", status);
    }
    return text_buffer;
}
