// Traces: one line at the call, one way for all. A message goes to the platform's history, formatted and
// bounded, when the history wants it, and to its debug output when that is on. Trace texts are behaviour:
// people search logs for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "quillplatform/trace.h"

namespace quill {

constexpr uint32_t kTraceSubtype = 102;
constexpr size_t kTraceText = 512;

// What the history receives: the subtype, then the text.
struct TraceEvent {
    uint32_t subtype;
    char text[kTraceText];
};

bool history_wanted();
bool debug_wanted();

// Records the event; written is what snprintf(3) gave for its text.
void record(TraceEvent& event, int written);

// A trace's format, checked against its arguments while compiling. Only a literal converts to one, so a text
// from a file or the network never becomes a format.
template <class... Args>
struct TraceFormat {
    const char* text;

    consteval TraceFormat(const char* literal) : text(literal) {  // NOLINT(google-explicit-constructor)
        constexpr bool is_text[] = {std::is_convertible_v<Args, const char*>..., false};
        size_t argument = 0;
        for (const char* at = literal; *at != '\0'; ++at) {
            if (*at != '%') continue;
            if (*++at == '%') continue;
            while (*at >= '0' && *at <= '9') ++at;  // a width, as in %02x
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

// The status as traces print it, "<[%x]>", in the one buffer that all of them share.
const char* status_text(uint32_t status);

}  // namespace quill
