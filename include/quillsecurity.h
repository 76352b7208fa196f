/* libquillsecurity: the security configuration of a network operating system.
 *
 * The library has two faces. Record handlers (names ending in _config) run in the security daemon and
 * perform one operation on one kind of record in the persistent store. Client functions (names beginning
 * with cmi_) run in configuration clients and ask the daemon.
 *
 * Conventions
 *  - All functions have C linkage and answer a status of quillsecurity/status.h unless they say otherwise:
 *    0 for success. Nothing is thrown.
 *  - `handle` is an open persistent store (security_pss_create), `connection` the number by which the
 *    request channel knows a client; both are 32-bit numbers, never addresses.
 *  - Pointers must not be null unless a function says what null means.
 *  - The library starts no thread and takes no lock: one call at a time per process.
 *  - The store, the request channel and the traces are imported: the program links a platform library that
 *    has them (libquillplatform, declared in quillplatform.h, or one of its own).
 */
#ifndef QUILLSECURITY_H
#define QUILLSECURITY_H

#include "quillsecurity/records.h"
#include "quillsecurity/services.h"
#include "quillsecurity/status.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct pss_descriptor pss_descriptor; /* quillplatform/pss.h: bytes and their length */

/* ---------------------------------------------------------------------------------------- byte order */

/* Swaps, in place, the bytes of each 32-bit word that travels big-endian in a record of this request type
 * (enum security_request_type); does nothing for a type that has none. Swapping is its own inverse: the
 * same call prepares a record for sending and reads a reply. `record` needs no alignment and must be as
 * large as the type's record. */
void security_conf_cmi_byteorder_convert(int32_t request_type, void *record);

/* ------------------------------------------------------------------------------- the persistent store */

/* Opens the store `name`, creating it when the first attempt fails (for whatever reason), and stores its
 * handle. word1 and word2 are passed on to the store. Answers the status of the last attempt; *handle is
 * written even when that failed and is then of no use.
 * Sets the process's file creation mask (umask(2)) to 0 and leaves it so: a program that creates files
 * afterwards gives their modes itself. */
uint32_t security_pss_create(uint32_t *handle, const char *name, uint32_t word1, uint32_t word2);

/* Stamps the open store with the version of the records that this library keeps, 0x100001.
 * Answers 0, or -1 when the store refused. */
int32_t set_pss_version(uint32_t handle);

/* Moves the store's cursor to `key`, or to the first key after it. Answers the key under the cursor; null
 * when there is none. *status is 0 when the key itself exists and SECURITY_PSS_NO_KEY when the cursor
 * stands on one that follows it (or on none); with any other status null is answered.
 * The key belongs to the store and lasts until the next call on this handle. */
pss_descriptor *security_pss_move2key(uint32_t handle, const pss_descriptor *key, uint32_t *status);

/* Moves the cursor relative to where it stands; location 3 is the next key. Answers the key reached, or
 * null when there is none or the move failed, with the store's status. Ownership as above. */
pss_descriptor *security_pss_move2location(uint32_t handle, uint32_t location, uint32_t *status);

/* ------------------------------------------------------------------------------------------- services */

/* Names of the services, in the order in which they are looked up. */
extern const enable_info_str_entry enable_info_str_table[];
extern const int32_t enable_info_str_table_size;

/* The name of a service, or null for a code that has none. The text is constant. */
const char *enable_info_to_str(int32_t code);

/* Handler of one service's value (enum security_service, any other code included).
 *   GET_REQ  fills *value. A service that was never set answers SECURITY_ERR_NO_VALUE and leaves *value,
 *            except SECURITY_SERVICE_SCP, which then reads as 0.
 *   SET_REQ  stores *value.
 * Any other operation does nothing and answers 0: values are never removed. *value is in host order before
 * and after. Store statuses pass through. */
uint32_t enable_info_config(uint32_t handle, uint32_t operation, int32_t code, uint32_t *value);

/* Asks the daemon for the same. *value changes only with status 0. Waits up to 180 seconds for the key and
 * FIPS items and 15 for the HTTP API, else as long as security_cmi_timeout says, which is put back.
 * Answers the daemon's status; a request that could not be delivered answers the channel's negative result
 * (0xffffffff) with errno set, and a reply too short for its record SECURITY_ERR_TRANSPORT | EPROTO. */
uint32_t cmi_enable_info_config(uint32_t connection, uint32_t operation, int32_t code, uint32_t *value);

/* Writes the default (SECURITY_DEFAULT_LIST) of each service that has no value yet; a stored value is never
 * overwritten. Telnet defaults to 1 on the card types that the platform lists for it, and to 0 on all
 * others and where the card type cannot be read. Answers 0, or the status of the first write that failed,
 * with the later ones left undone. A service whose presence cannot be determined is skipped. */
uint32_t security_conf_default_check(uint32_t handle);

/* The same for the debug configuration, which has no defaults. Answers 0. */
uint32_t security_debug_conf_default_check(void);

/* ------------------------------------------------------------------------------- storage for loaders */

/* Kept for the programs that load the library, which alone read and write it. All zero at load. */
extern char ssh_xinet_file_path[100], ssh_xinet_enable_file_path[100], ssh_xinet_disable_file_path[100];
extern char telnet_xinet_file_path[100], telnet_xinet_enable_file_path[100], telnet_xinet_disable_file_path[100];
extern char xinet_pid_file_path[100], ssh_config_file_path[100], ssh_config_dir_path[100];
extern char ssh_rsa_key_path[100], ssh_rsa_pubkey_path[100], ssh_dsa_key_path[100], ssh_dsa_pubkey_path[100];
extern char ssh_rsa1_key_path[100], ssh_rsa1_pubkey_path[100];
extern char ssh_rsa_userkey_path[100], ssh_rsa_userpubkey_path[100], ssh_rsa_userkey_tmp_path[100];
extern char ssh_dsa_userkey_path[100], ssh_dsa_userpubkey_path[100], ssh_dsa_userkey_tmp_path[100];
extern char banner_file_path[100], telnet_banner_file_path[100], console_banner_file_path[100];
extern char password_file_path[100], shadow_file_path[100];
extern char kvt_cert_store_path_persistent[256], kvt_cert_store_path_runtime[256], security_user_name[256];
extern char lc_array[640];

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
