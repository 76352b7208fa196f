// Debug traces. A message is formatted once for the platform's history (at most 511 characters), if the
// history takes such events, and once for its debug output, if that is on. Do not change the text of a trace:
// people and programs search logs for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "quillplatform/trace.h"

namespace quill {

constexpr uint32_t kTraceSubtype = 102;
constexpr size_t kTraceText = 512;

// An event of the history: the subtype, then the text with its terminator.
struct TraceEvent {
    uint32_t subtype;
    char text[kTraceText];
};

// Return true if the platform takes events for its history, or messages for its debug output.
bool history_wanted();
bool debug_wanted();

// Adds an event to the history. `written` is the result of snprintf(3) for its text.
void record(TraceEvent& event, int written);

// Returns the first conversion character of a format, after its '%' and width, or the terminator if there
// is none.
constexpr const char* find_conversion(const char* format) {
    for (; *format != '\0'; ++format) {
        if (*format != '%' || *++format == '%') continue;
        while (*format >= '0' && *format <= '9') ++format;  // a width, as in %02x
        if (*format == '\0') throw "a trace ends within a conversion";
        return format;
    }
    return format;
}

// The format of a trace, checked against the arguments at compile time. Only a literal converts to it, so a
// text from a file or the network cannot be passed as a format.
template <class... Args>
struct TraceFormat {
    const char* text;

    consteval TraceFormat(const char* literal) : text(literal) {  // NOLINT(google-explicit-constructor)
        constexpr bool is_text[] = {std::is_convertible_v<Args, const char*>..., false};
        size_t argument = 0;
        for (const char* at = find_conversion(literal); *at != '\0'; at = find_conversion(at + 1)) {
            const bool wants_text = *at == 's';
            const bool wants_word = *at == 'd' || *at == 'x' || *at == 'c';
            if (!wants_text && !wants_word) throw "no such conversion in a trace";
            if (argument == sizeof...(Args) || is_text[argument++] != wants_text)
                throw "the arguments of a trace do not fit its format";
        }
        if (argument != sizeof...(Args)) throw "the arguments of a trace do not fit its format";
    }
};

template <class... Args>
void trace(TraceFormat<std::type_identity_t<Args>...> format, Args... args) {
    static_assert(((std::is_convertible_v<Args, const char*> || sizeof(Args) <= sizeof(int)) && ...));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"  // the format is a literal, see above
    if (history_wanted()) {
        TraceEvent event;
        record(event, snprintf(event.text, sizeof event.text, format.text, args...));
    }
    if (debug_wanted()) buginf(1, sdwrap_dbg_modname, 0, format.text, args...);
#pragma GCC diagnostic pop
}

// Formats a status for a trace, "<[%x]>". The text is in static storage, overwritten by the next call.
const char* status_text(uint32_t status);

}  // namespace quill
