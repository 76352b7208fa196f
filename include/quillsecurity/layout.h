/* Assertions on the layout of records, which is the same on every target. C99 has no static_assert. */
#ifndef QUILLSECURITY_LAYOUT_H
#define QUILLSECURITY_LAYOUT_H

#include <stddef.h>

#if defined(__cplusplus)
#define QUILL_ASSERT(condition) static_assert(condition, #condition)
#else
#define QUILL_ASSERT(condition) __extension__ _Static_assert(condition, #condition)
#endif

/* `size` and `offset` are in bytes. */
#define QUILL_ASSERT_SIZE(record, size) QUILL_ASSERT(sizeof(record) == (size))
#define QUILL_ASSERT_OFFSET(record, field, offset) QUILL_ASSERT(offsetof(record, field) == (offset))

#endif
