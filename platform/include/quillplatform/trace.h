/* Debug traces: a history in memory, and messages that are printed on demand.
 *
 * The history of the reference is a ring buffer in the process's memory with the last 512 events.
 * $QUILL_TRACE, read at the first trace, switches both: "off" for neither, "debug" for both,
 * "history" (or unset) for the history alone. Traces may have secrets; the history leaves the process
 * only with quill_trace_dump().
 */
#ifndef QUILLPLATFORM_TRACE_H
#define QUILLPLATFORM_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Returns 0 if the history takes events of this module and subtype. */
uint32_t sdwrap_hist_event_subtype_check(uint32_t module, uint32_t subtype);

/* Adds an event to the history: `length` bytes, a 32-bit subtype followed by a NUL-terminated text. The
 * reference cuts it to 516 bytes. Returns 0. */
uint32_t sdwrap_hist_event(uint32_t module, uint32_t length, const void* event);

/* Returns a number other than 0 if messages of this subtype are to be printed. */
uint32_t sdwrap_chk_int(uint32_t subtype, uint32_t a, uint32_t b, uint32_t c);

/* Prints a message to standard error, as a line that starts with the module's name. */
void buginf(uint32_t level, const char* module_name, uint32_t zero, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* The library's name in printed messages. */
extern const char* sdwrap_dbg_modname;

/* Writes the history to a file descriptor, oldest event first, one line per event. The caller makes sure that
 * only root can read the file. Returns 0, or -1 with errno set. */
int32_t quill_trace_dump(int32_t descriptor);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
