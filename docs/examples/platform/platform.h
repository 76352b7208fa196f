/* A platform for libquillsecurity that keeps everything in memory: a start for a platform of your own. It
 * defines what the library imports, and pss2_close(), but nothing else that only quillsecurityd and quillsec
 * need; quillplatform(7) lists both. */
#ifndef MEMORY_PLATFORM_H
#define MEMORY_PLATFORM_H

#include <quillplatform.h>

/* Serves a request of the channel, here in the same process: changes `record`, of `length` bytes in wire byte
 * order, into the reply and returns the status. The caller sets it before the first request. */
typedef uint32_t (*platform_server)(int32_t request_type, uint32_t operation, void* record, uint32_t length);
extern platform_server platform_serve;
#endif
