/* The system manager: which context this process runs in, and on which card.
 *
 * The reference reads the section [system] of its configuration file, $QUILL_PLATFORM_CONF (an absolute
 * path; another one is logged and not read), else /etc/quillsecurity/platform.conf:
 *   vdc_id = 1                   id of the virtual device context, 1 to 99
 *   card_type = 12               type of this card, 0 to 65535
 *   telnet_card_types = 12, 13   card types on which telnet is on by default
 *   roles = auditor, backup      roles beside the built-in ones (quillplatform/shell.h)
 *   locales = FILE               absolute path of a file with the locales' names, one a line, '#' for remarks
 * A line holds 198 characters; a longer list is continued by another line of the same name.
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

/* The calling process's virtual device context: $SYSMGR_VDC_ID, else the configuration, else 1. A value out
 * of range counts as absent. -1, which is no context, while there is no memory to read the configuration. */
int32_t sysmgrcmn_vdc_id_get(void);

typedef struct card_module_info {
    uint16_t card_type;
} card_module_info;

/* Fills in what is known of this card. Answers 0, or not 0 where the card cannot be read: for the reference,
 * where no card type is configured. */
uint32_t get_card_module_info(card_module_info* info);

/* The card types on which telnet is on by default, `*count` of them; they belong to the platform. Optional:
 * a platform that does not define this function lists none. */
const uint16_t* quill_telnet_card_types(uint32_t* count) __attribute__((weak));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
