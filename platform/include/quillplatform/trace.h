/* Debug traces: a history that is always being written, and messages printed on demand.
 *
 * The reference keeps the history in the process's memory: a ring of the last 512 events, the oldest
 * dropped. $QUILL_TRACE, read at the first trace, chooses: "off" for neither, "debug" for both sinks,
 * "history" (or nothing) for the history alone. Traces may show secrets; the history never leaves the
 * process but by quill_trace_dump().
 */
#ifndef QUILLPLATFORM_TRACE_H
#define QUILLPLATFORM_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* 0 when the history wants events of this module and subtype. */
uint32_t sdwrap_hist_event_subtype_check(uint32_t module, uint32_t subtype);

/* Records an event: `length` bytes, a 32-bit subtype followed by a NUL-terminated text. Bytes past what a
 * slot of the ring holds (516) are cut. Answers 0. */
uint32_t sdwrap_hist_event(uint32_t module, uint32_t length, const void* event);

/* Not 0 when messages of this subtype are to be printed. */
uint32_t sdwrap_chk_int(uint32_t subtype, uint32_t a, uint32_t b, uint32_t c);

/* Prints a message to standard error, on a line of its own and under the module's name. */
void buginf(uint32_t level, const char* module_name, uint32_t zero, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* The library's name in printed messages. */
extern const char* sdwrap_dbg_modname;

/* Writes the history, oldest first, one line each, to a file descriptor. The caller sees to it that only
 * root can read what it names. Answers 0, or -1 with errno set. */
int32_t quill_trace_dump(int32_t descriptor);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
