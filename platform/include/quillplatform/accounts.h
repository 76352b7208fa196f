/* Accounts: look-up of shadow entries. */
#ifndef QUILLPLATFORM_ACCOUNTS_H
#define QUILLPLATFORM_ACCOUNTS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct platform_shadow_entry {
    uint32_t status;      /* 0, or the reason why the entry could not be read */
    const char* password; /* the password field, as in shadow(5) */
    int32_t expiry_days;  /* day on which the account expires, counted from 1970-01-01; -1 for never */
} platform_shadow_entry;

/* Looks up a user of the calling process's context (sysmgrcmn_vdc_id_get()) by plain or stored name; a name
 * with a '#' is a stored name. Returns the entry, in static storage that the next call overwrites, or null if
 * there is no such account. If the look-up failed, returns an entry whose status is SECURITY_ERR_TRANSPORT |
 * errno. The reference calls getspnam(3) with the stored name. `handle` is not used. */
platform_shadow_entry* mygetspnam(uint32_t handle, const char* name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
