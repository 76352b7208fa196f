/* Accounts: the shadow entry of a user. */
#ifndef QUILLPLATFORM_ACCOUNTS_H
#define QUILLPLATFORM_ACCOUNTS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct platform_shadow_entry {
    uint32_t status;      /* 0, or why the entry could not be read */
    const char* password; /* the stored password field, shadow(5) */
    int32_t expiry_days;  /* days since 1970-01-01 on which the account expires; -1 for never */
} platform_shadow_entry;

/* The entry of a user of the calling process's context (sysmgrcmn_vdc_id_get), by his plain or his stored
 * name; null when there is no such account. It lives in static storage until the next call. The reference
 * asks getspnam(3) for the stored name, and answers an entry with status 0x804a0000 OR errno where that
 * failed for another reason than the account's absence. A name that holds a '#' is taken for a stored one.
 * `handle` is not used. */
platform_shadow_entry* mygetspnam(uint32_t handle, const char* name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
