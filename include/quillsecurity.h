/* libquillsecurity: the security configuration of a network operating system.
 *
 * The library has two parts. Record handlers (names ending in _config) are called by the security daemon and
 * perform one operation on one record in the persistent store. Client functions (names beginning with cmi_)
 * are called by configuration clients and send requests to the daemon.
 *
 * Conventions
 *  - All functions have C linkage and return a status of quillsecurity/status.h, 0 for success, unless they
 *    say otherwise. They throw no exceptions.
 *  - `handle` is an open persistent store (security_pss_create), `connection` the number of a client's
 *    connection to the daemon. Both are 32-bit numbers, never addresses.
 *  - Pointers must not be null unless a function says what null means.
 *  - The library starts no threads and is not thread-safe: only one thread may call it at a time.
 *  - The store, the request channel and the traces are imported. The program links a platform library that
 *    defines them: libquillplatform (quillplatform.h) or its own.
 */
#ifndef QUILLSECURITY_H
#define QUILLSECURITY_H

#include "quillsecurity/accounts.h"
#include "quillsecurity/banner.h"
#include "quillsecurity/notify.h"
#include "quillsecurity/records.h"
#include "quillsecurity/services.h"
#include "quillsecurity/ssh_keys.h"
#include "quillsecurity/status.h"
#include "quillsecurity/users.h"
#include "quillsecurity/web_server.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct pss_descriptor; /* quillplatform/pss.h: bytes and their length */

/* ---------------------------------------------------------------------------------------- byte order */

/* Byte-swaps, in place, each 32-bit word that is sent big-endian in a record of this request type (enum
 * security_request_type); does nothing for a type without such words. The same call converts a record before
 * sending and after receiving. `record` needs no alignment and must be as large as the type's record. */
void security_conf_cmi_byteorder_convert(int32_t request_type, void* record);

/* ------------------------------------------------------------------------------- the persistent store */

/* Opens the store `name` and stores its handle in *handle. If that fails, for whatever reason, creates it.
 * word1 and word2 are passed to the store. Returns the status of the last attempt; on failure *handle is
 * undefined. Sets the process's file creation mask (umask(2)) to 0 and does not restore it: the program must
 * pass the exact modes of the files that it creates afterwards. */
uint32_t security_pss_create(uint32_t* handle, const char* name, uint32_t word1, uint32_t word2);

/* Writes the version of this library's records, 0x100001, to the store. Returns 0, or -1 on failure. */
int32_t set_pss_version(uint32_t handle);

/* Moves the store's cursor to `key`, or to the first key after it if it does not exist. Returns the key at
 * the cursor, or null if there is none. *status is 0 if `key` exists, and SECURITY_PSS_NO_KEY if the cursor
 * is at a key after it or at none; for any other status the result is null. The returned key belongs to the
 * store and is valid until the next call on this handle. */
struct pss_descriptor* security_pss_move2key(uint32_t handle, const struct pss_descriptor* key,
                                             uint32_t* status);

/* Moves the cursor relative to its position; location 3 is the next key. Returns the key at the cursor, owned
 * by the store as above, or null if there is none or the move failed. *status is the store's status. */
struct pss_descriptor* security_pss_move2location(uint32_t handle, uint32_t location, uint32_t* status);

/* ------------------------------------------------------------------------------------------- services */

/* The names of the services and the number of rows. */
extern const enable_info_str_entry enable_info_str_table[];
extern const int32_t enable_info_str_table_size;

/* Returns the name of a service, a constant text, or null for a code that has none. */
const char* enable_info_to_str(int32_t code);

/* Handler of the value of a service (enum security_service, or any other code).
 *   GET_REQ  reads it into *value. If it was never set, returns SECURITY_ERR_NO_VALUE and leaves *value
 *            unchanged, except for SECURITY_SERVICE_SCP, which then reads as 0.
 *   SET_REQ  stores *value.
 * Any other operation does nothing and returns 0: values are never deleted. *value is in host order. Other
 * statuses of the store are returned unchanged. */
uint32_t enable_info_config(uint32_t handle, uint32_t operation, int32_t code, uint32_t* value);

/* Has the daemon do the same. *value changes only with status 0. The time limit is 180 seconds for the key
 * and FIPS items, 15 seconds for the HTTP API and else security_cmi_timeout, which is restored. Returns the
 * daemon's status; the channel's negative result (0xffffffff) with errno set if the request could not be
 * delivered; SECURITY_ERR_TRANSPORT | EPROTO if the reply is shorter than its record. */
uint32_t cmi_enable_info_config(uint32_t connection, uint32_t operation, int32_t code, uint32_t* value);

/* Stores the default (SECURITY_DEFAULT_LIST) of each service that has no value; never overwrites a value. The
 * default of telnet is 1 on the card types that the platform lists for it, and 0 on all others and if the
 * card type cannot be read. A service whose value cannot be looked up is skipped. Returns 0, or the status of
 * the first write that failed; later defaults are then not stored. */
uint32_t security_conf_default_check(uint32_t handle);

/* The same for the debug configuration, which has no defaults: does nothing and returns 0. */
uint32_t security_debug_conf_default_check(void);

/* ----------------------------------------------------------------------------------- secrets: encodings */

/* Encoders convert a NUL-terminated text, decoders input_length bytes. They store a new block in *output,
 * which the caller wipes and releases with free(3), and its length in bytes in *output_length. On failure
 * *output is null. Return 0 on success; 1 if memory ran out or the key cannot be used; SECURITY_ERR_CRYPT if
 * hashing or verifying failed, also because memory ran out. */
typedef uint32_t (*encryption_func)(const char* text, const char* key, uint32_t key_length, char** output,
                                    uint32_t* output_length);
typedef uint32_t (*decryption_func)(const char* input, uint32_t input_length, const char* key,
                                    uint32_t key_length, char** output, uint32_t* output_length);
typedef struct encryption_func_entry {
    uint32_t type; /* enum security_encryption */
    encryption_func function;
} encryption_func_entry;
typedef struct decryption_func_entry {
    uint32_t type;
    decryption_func function;
} decryption_func_entry;
extern const encryption_func_entry encryption_func_table[];
extern const int32_t encryption_func_table_size;
extern const decryption_func_entry decryption_func_table[];
extern const int32_t decryption_func_table_size;

/* Encode and decode with the function for `type`. Return SECURITY_ERR_NO_CIPHER, with the output arguments
 * unchanged, for a type that is not in the table. */
uint32_t security_conf_encrypt(const char* text, uint32_t type, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length);
uint32_t security_conf_decrypt(const char* input, uint32_t input_length, uint32_t type, const char* key,
                               uint32_t key_length, char** output, uint32_t* output_length);

/* Type 0, clear text: copy the input. The encoder's length includes the terminator. The key is not used. */
uint32_t no_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                         uint32_t* output_length);
uint32_t no_decrypt_func(const char* input, uint32_t input_length, const char* key, uint32_t key_length,
                         char** output, uint32_t* output_length);

/* Type 7, a Vigenere cipher: each letter is shifted by a letter of the key and keeps its case; other
 * characters are unchanged, but advance the key. The output length includes the terminator. input_length is
 * not used: the input ends at its terminator. key_length is the number of the key's letters plus one; 0
 * stands for the built-in key, 1 and a null key are refused. The current locale (isalpha(3)) decides what a
 * letter is. Decoding restores any text in the C locale and in UTF-8 locales; in locales with other
 * single-byte letters, such as Latin-1, it does not restore those letters. */
uint32_t vigenere_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                               uint32_t* output_length);
uint32_t vigenere_decrypt_func(const char* input, uint32_t input_length, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length);

/* Type 1, salted hashes, see below. The encoder's block has the hash string followed by the other half of the
 * digest and a terminator; its length is that of the hash string, which is to be stored. The decoder verifies
 * `candidate` against a stored hash string; on success its output is a copy of the candidate. */
uint32_t security_md5_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                                   uint32_t* output_length);
uint32_t security_verify_md5_hash_func(const char* stored, uint32_t stored_length, const char* candidate,
                                       uint32_t candidate_length, char** output, uint32_t* output_length);

/* ------------------------------------------------------------------------------- secrets: salted hashes */

/* A hash string is "$TYPE$SALT$DIGEST". Type 1 is MD5, 3 is SHA-1. The salt has 1 to 8 hexadecimal digits.
 * The digest is computed over the secret, the salt and the secret again; the string has the first half of its
 * hexadecimal digits, as many as the digest has bytes (16 or 20). */

/* Writes a number as text to `output`, a buffer of 11 bytes: hexadecimal for the radix 'x', else decimal. */
void security_ltoa(char* output, char radix, uint32_t value);

/* Write a random salt to `output`, a buffer of 9 bytes, and its length, 1 to 8, to *length. The length given
 * in *length is ignored, but SECURITY_ERR_CRYPT is returned if it exceeds 64. Seed srandom(3). The two
 * functions do the same. */
uint32_t security_gen_salt(char* output, int32_t* length);
uint32_t security_gen_fix_len_salt(char* output, int32_t* length);

/* Computes a digest over secret, salt and secret again and writes it as hexadecimal text to `output`, a
 * buffer of 1024 bytes; the rest of the buffer is zero. *output_length is the length of the digest in bytes,
 * half of that of the text. digest_name is a name for EVP_get_digestbyname(3); SECURITY_ERR_NO_CIPHER if
 * OpenSSL has none of that name. SECURITY_ERR_CRYPT if OpenSSL failed. */
uint32_t security_calculate_hash(const char* secret, uint32_t secret_length, const char* salt,
                                 uint32_t salt_length, char* output, uint32_t* output_length,
                                 const char* digest_name);

/* Writes a new hash string of type 1, with a random salt, to `output`, a buffer of 1036 bytes, followed by
 * the other half of the digest and zeros. *output_length is the length of the hash string alone. */
uint32_t security_calculate_md5_shadowed_hash(const char* secret, uint32_t secret_length, char* output,
                                              uint32_t* output_length);

/* Writes the name of a digest type ("none", "md5" or "sha1" for 0, 1 or 3) to `name`, a buffer of 8 bytes,
 * and returns it. For any other type writes an empty name and returns null. */
char* security_get_digest_name_from_encryption_type(char* name, int32_t digest_type);

/* Computes the digest of a secret, as above, and compares the first half of its text with `expected`, in
 * constant time. Returns 0 if they are equal; SECURITY_ERR_CRYPT if not or if expected_length is not the
 * length of the digest in bytes. */
uint32_t security_verify_hash(const char* secret, uint32_t secret_length, const char* salt,
                              uint32_t salt_length, const char* expected, uint32_t expected_length,
                              const char* digest_name);

/* Verifies a secret against a stored hash string, a NUL-terminated text of stored_length characters. Returns
 * 0 if it matches; SECURITY_ERR_CRYPT if not, for a null text and for a text that is not a hash string;
 * SECURITY_ERR_NO_CIPHER for type 0. Never reads past the terminator, whatever stored_length is. */
uint32_t security_verify_shadowed_hash(const char* secret, uint32_t secret_length, const char* stored,
                                       uint32_t stored_length);

/* ---------------------------------------------------------------------------------- password strength */

/* Checks the strength of a new password: our own rules first, then cracklib with the dictionary
 * /tovo/etc/quillsecurity/cracklib_dict, without which every password is rejected. Returns 0 if the password
 * is accepted or the check is switched off (the daemon's value of SECURITY_SERVICE_PASSWORD_STRENGTH is 0;
 * with connection 0xffffffff it is not read). Else returns the address of the message of the first broken
 * rule, valid until the next check, and copies the message to cmi_common_user_err_str. A null text counts as
 * empty. Only the first 255 characters are checked. */
uintptr_t security_user_password_check_psec_norm(uint32_t connection, const char* password,
                                                 const char* user_name);

/* Checks only our own rules. Returns the message of the first broken rule, in static storage that the next
 * call overwrites, or null. */
char* security_check_strength_main(const char* user_name, const char* password);

/* Modify a text in place and return it; accept null. reverse_fun reverses it, bin_sort_fun sorts its
 * characters as signed bytes, change_to_lower converts all but the first character to lower case. */
char* reverse_fun(char* text);
char* bin_sort_fun(char* text);
char* change_to_lower(char* text);

/* ----------------------------------------------------------------------------------------- user records */

/* Handler of user records. Users with user_type 1 have a table of their own.
 *   GET_REQ      reads the record; SECURITY_ERR_NOT_FOUND
 *   GETNEXT_REQ  reads the record of the user that follows; SECURITY_ERR_END_OF_TABLE
 *   SET_REQ      stores the record; a clear password (encryption_type 0) is enciphered first
 *   DEL_REQ      deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and returns 0. A password that was read is deciphered, with
 * encryption_type 0. Returns SECURITY_ERR_CRYPT if encoding failed, with the record unchanged, or if decoding
 * failed (a hash cannot be decoded), with user_type left big-endian. Returns SECURITY_ERR_REQUEST_TEXT for a
 * user name without a terminator, and SECURITY_ERR_CRYPT for a password without one that is to be encoded. */
uint32_t security_user_config(uint32_t handle, uint32_t operation, security_user* record);

/* Has the daemon do the same. The record changes only with status 0. Returns the daemon's status; a request
 * that cannot be delivered is reported as by cmi_enable_info_config(). */
uint32_t cmi_security_user_config(uint32_t connection, uint32_t operation, security_user* record);

/* --------------------------------------------------------------------------- roles and locales of users */

/* Handler of the roles of a user. The list is stored as given: names are not checked, nor are duplicates.
 *   GET_REQ      reads the list; SECURITY_ERR_NOT_FOUND, with num_roles byte-swapped
 *   GETNEXT_REQ  reads the list that follows; SECURITY_ERR_END_OF_TABLE, with num_roles byte-swapped
 *   SET_REQ      stores the list and leaves num_roles big-endian
 *   DEL_REQ      deletes it; SECURITY_ERR_NOT_FOUND
 * Any other operation does nothing and returns 0. Names past the count read as zero. SET_REQ returns
 * SECURITY_ERR_REQUEST_COUNT, with nothing changed, for a count outside 0 to 64. Only the first 127
 * characters of user_name are used. */
uint32_t security_user_roles_config(uint32_t handle, uint32_t operation, security_user_roles* record);

/* The same for locales, with these differences. A failed GET_REQ or GETNEXT_REQ leaves the record unchanged.
 * GETNEXT_REQ returns 0, with the record unchanged, at the end of the store and if user_name itself has no
 * list; and it does not stop at the last list, but reads whatever record follows in the store. */
uint32_t security_user_locales_config(uint32_t handle, uint32_t operation, security_user_locales* record);

/* ------------------------------------------------------------------------------------- privilege levels */

/* Handler of the secret of a privilege level.
 *   GET_REQ      reads the record; SECURITY_ERR_NO_PRIV_LVL
 *   GETNEXT_REQ  reads the record of the level that follows; SECURITY_ERR_NO_MORE_PRIV_LVLS
 *   SET_REQ      stores the record; a secret of type SECURITY_ENCRYPTION_TO_HASH is hashed first.
 *                SECURITY_ERR_CRYPT if hashing failed or the secret has no terminator
 *   DEL_REQ      deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and returns 0. Words are in host order.
 *
 * The hash string overwrites the start of the field, without a terminator; the bytes behind it are unchanged
 * and are stored. So the end of a clear secret that is longer than the hash string is stored in clear; a
 * caller that must avoid this hashes the secret itself, into a zeroed field. */
uint32_t security_priv_info_config(uint32_t handle, uint32_t operation, security_priv_info* record);

/* Has the daemon do the same. The record changes only with status 0. Returns the daemon's status; a request
 * that cannot be delivered is reported as by cmi_enable_info_config(). */
uint32_t cmi_security_priv_info_config(uint32_t connection, uint32_t operation, security_priv_info* record);

/* Sends the request for each of the levels 1 to 15 in order and ends at the first status that is not 0, which
 * it returns. All requests use `record`, so each begins with the fields of the previous reply. */
uint32_t cmi_security_priv_info_config_all(uint32_t connection, uint32_t operation,
                                           security_priv_info* record);

/* Sends the request, with an empty record, for each of the levels 1 to 15. SECURITY_PSS_NO_KEY counts as
 * success; any other status that is not 0 ends it and is returned. */
uint32_t cmi_security_priv_info_cleanup(uint32_t connection, uint32_t operation);

/* Deletes the secrets of all levels: cmi_security_priv_info_cleanup() with DEL_REQ. */
uint32_t cmi_security_vsh_callback_priv_info_cleanup(uint32_t connection);

/* Verifies a candidate of candidate_length bytes against the secret of a level, which is read from the
 * daemon. Sets *matched to 1 if it matches, else to 0. Returns 0 if it matches; the status of
 * security_verify_shadowed_hash() if not; SECURITY_ERR_NO_PRIV_LVL if the level has no secret; or another
 * status of cmi_security_priv_info_config(). */
uint32_t security_verify_priv_level_secret(uint32_t connection, const char* candidate,
                                           uint32_t candidate_length, int32_t level, uint32_t* matched);

/* Writes the name of the role for a privilege level to `buffer`, 1024 bytes, zero behind the name, and
 * returns the buffer. The roles are "priv-0" to "priv-14", and for level 15 "network-admin" in the default
 * virtual device context and "vdc-admin" in all others. The name is empty for any other level. */
char* security_map_priv_lvl_to_roles(int32_t level, char* buffer);

/* Return 1: privilege levels are always enabled. */
uint32_t vsh_is_privilege_enabled(void);
uint32_t vsh_is_priv_enable(void);

/* Returns 0: expired users may never log in. */
uint32_t is_expired_user_allowed(void);

/* ------------------------------------------------------------------------------- storage for loaders */

/* Variables for programs that load the library, zero at load. The library does not use them. */
extern char ssh_xinet_file_path[100], ssh_xinet_enable_file_path[100], ssh_xinet_disable_file_path[100];
extern char telnet_xinet_file_path[100], telnet_xinet_enable_file_path[100],
    telnet_xinet_disable_file_path[100];
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
