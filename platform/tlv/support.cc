// Memory and messages for the TLV functions and for converters.
#include <syslog.h>

#include <cstdarg>
#include <cstdlib>

#include "quillplatform/tlv.h"

void* tlvu_malloc(uint32_t size) { return malloc(size); }

void tlvu_error_print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}
