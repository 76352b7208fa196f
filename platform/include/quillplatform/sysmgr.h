/* The system manager: the virtual device context of this process, and the card that it runs on.
 *
 * The reference reads the section [system] of its configuration file, $QUILL_PLATFORM_CONF (an absolute path;
 * a relative one is logged and not read), or /etc/quillsecurity/platform.conf:
 *   vdc_id = 1                   id of the virtual device context, 1 to 99
 *   card_type = 12               type of this card, 0 to 65535
 *   telnet_card_types = 12, 13   card types on which telnet is on by default
 *   roles = auditor, backup      roles in addition to the built-in ones (quillplatform/shell.h)
 *   locales = FILE               absolute path of a file with names of locales, one per line; '#' starts a
 *                                comment
 * A line has 198 characters at most; a longer list is continued in another line with the same key.
 *
 * Each context has a security daemon of its own. Context 1's has its socket in the runtime directory and its
 * store in the state directory (shell.h, pss.h); those of context N are in the folder vdc_N of each, N
 * without leading zeros. A client's requests go to the daemon of its own context, and a daemon refuses all
 * others.
 */
#ifndef QUILLPLATFORM_SYSMGR_H
#define QUILLPLATFORM_SYSMGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The largest id of a virtual device context; the smallest is 1. */
#define SYSMGRCMN_VDC_ID_MAX 99

/* Returns the virtual device context of the calling process: $SYSMGR_VDC_ID, else the configured one, else
 * 1. A value out of range is ignored. Returns -1, which is not a context, if there is no memory to read
 * the configuration. */
int32_t sysmgrcmn_vdc_id_get(void);

typedef struct card_module_info {
    uint16_t card_type;
} card_module_info;

/* Reads the type of this card. Returns 0, or another number on failure; for the reference, if no card type
 * is configured. */
uint32_t get_card_module_info(card_module_info* info);

/* Returns the card types on which telnet is on by default, an array that belongs to the platform, and stores
 * their number in *count. Optional: a platform that does not define this function has none. */
const uint16_t* quill_telnet_card_types(uint32_t* count) __attribute__((weak));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
