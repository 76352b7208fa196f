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
 *  - The library starts no thread and takes no lock within a process: one call at a time.
 *  - The store, the request channel and the traces are imported: the program links a platform library that
 *    has them (libquillplatform, declared in quillplatform.h, or one of its own).
 */
#ifndef QUILLSECURITY_H
#define QUILLSECURITY_H

#include "quillsecurity/banner.h"
#include "quillsecurity/notify.h"
#include "quillsecurity/records.h"
#include "quillsecurity/services.h"
#include "quillsecurity/ssh_keys.h"
#include "quillsecurity/status.h"
#include "quillsecurity/users.h"
#include "quillsecurity/web_server.h"

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

struct passwd;                /* <pwd.h> */
struct spwd;                  /* <shadow.h> */
struct platform_shadow_entry; /* quillplatform/accounts.h */

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
void security_conf_cmi_byteorder_convert(int32_t request_type, void* record);

/* ------------------------------------------------------------------------------- the persistent store */

/* Opens the store `name`, creating it when the first attempt fails (for whatever reason), and stores its
 * handle. word1 and word2 are passed on to the store. Answers the status of the last attempt; *handle is
 * written even when that failed and is then of no use.
 * Sets the process's file creation mask (umask(2)) to 0 and leaves it so: a program that creates files
 * afterwards gives their modes itself. */
uint32_t security_pss_create(uint32_t* handle, const char* name, uint32_t word1, uint32_t word2);

/* Stamps the open store with the version of the records that this library keeps, 0x100001.
 * Answers 0, or -1 when the store refused. */
int32_t set_pss_version(uint32_t handle);

/* Moves the store's cursor to `key`, or to the first key after it. Answers the key under the cursor; null
 * when there is none. *status is 0 when the key itself exists and SECURITY_PSS_NO_KEY when the cursor
 * stands on one that follows it (or on none); with any other status null is answered.
 * The key belongs to the store and lasts until the next call on this handle. */
pss_descriptor* security_pss_move2key(uint32_t handle, const pss_descriptor* key, uint32_t* status);

/* Moves the cursor relative to where it stands; location 3 is the next key. Answers the key reached, or
 * null when there is none or the move failed, with the store's status. Ownership as above. */
pss_descriptor* security_pss_move2location(uint32_t handle, uint32_t location, uint32_t* status);

/* ------------------------------------------------------------------------------------------- services */

/* Names of the services, in the order in which they are looked up. */
extern const enable_info_str_entry enable_info_str_table[];
extern const int32_t enable_info_str_table_size;

/* The name of a service, or null for a code that has none. The text is constant. */
const char* enable_info_to_str(int32_t code);

/* Handler of one service's value (enum security_service, any other code included).
 *   GET_REQ  fills *value. A service that was never set answers SECURITY_ERR_NO_VALUE and leaves *value,
 *            except SECURITY_SERVICE_SCP, which then reads as 0.
 *   SET_REQ  stores *value.
 * Any other operation does nothing and answers 0: values are never removed. *value is in host order before
 * and after. Store statuses pass through. */
uint32_t enable_info_config(uint32_t handle, uint32_t operation, int32_t code, uint32_t* value);

/* Asks the daemon for the same. *value changes only with status 0. Waits up to 180 seconds for the key and
 * FIPS items and 15 for the HTTP API, else as long as security_cmi_timeout says, which is put back.
 * Answers the daemon's status; a request that could not be delivered answers the channel's negative result
 * (0xffffffff) with errno set, and a reply too short for its record SECURITY_ERR_TRANSPORT | EPROTO. */
uint32_t cmi_enable_info_config(uint32_t connection, uint32_t operation, int32_t code, uint32_t* value);

/* Writes the default (SECURITY_DEFAULT_LIST) of each service that has no value yet; a stored value is never
 * overwritten. Telnet defaults to 1 on the card types that the platform lists for it, and to 0 on all
 * others and where the card type cannot be read. Answers 0, or the status of the first write that failed,
 * with the later ones left undone. A service whose presence cannot be determined is skipped. */
uint32_t security_conf_default_check(uint32_t handle);

/* The same for the debug configuration, which has no defaults. Answers 0. */
uint32_t security_debug_conf_default_check(void);

/* ----------------------------------------------------------------------------------- secrets: encodings */

/* Encoders turn a NUL-terminated text into a new block and its length, decoders a block of input_length
 * bytes. The block is the caller's, to wipe and to free(3); it is null where the status is not 0. Answer 0; 1
 * when memory ran out or a key cannot be used; SECURITY_ERR_CRYPT when hashing or verifying failed, for want
 * of memory too. */
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

/* Encodes and decodes by type. SECURITY_ERR_NO_CIPHER, with no output, for a type that no table has. */
uint32_t security_conf_encrypt(const char* text, uint32_t type, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length);
uint32_t security_conf_decrypt(const char* input, uint32_t input_length, uint32_t type, const char* key,
                               uint32_t key_length, char** output, uint32_t* output_length);

/* Type 0. The encoder's length counts the terminator; the decoder copies exactly its input. Keys are ignored.
 */
uint32_t no_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                         uint32_t* output_length);
uint32_t no_decrypt_func(const char* input, uint32_t input_length, const char* key, uint32_t key_length,
                         char** output, uint32_t* output_length);

/* Type 7: each letter moves along the alphabet by a letter of the key, its case kept; everything else stays,
 * but uses up its letter of the key. The length counts the terminator, and input_length is not used: the text
 * ends at its terminator. key_length 0 stands for the built-in key; any other counts one byte more than the
 * key has letters, and 1, which leaves no letter, is refused, as is a null key. What is a letter is for the
 * current locale (isalpha(3)) to say. In the C locale and in UTF-8 ones decoding gives back any text; in one
 * with further single-byte letters, such as Latin-1, those do not come back. */
uint32_t vigenere_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                               uint32_t* output_length);
uint32_t vigenere_decrypt_func(const char* input, uint32_t input_length, const char* key, uint32_t key_length,
                               char** output, uint32_t* output_length);

/* Type 1, see below. The encoder's block holds the whole digest and its terminator; its length counts the
 * hash string alone, which is what to store. The decoder verifies: the stored string is its input, the
 * candidate its key, and the output a copy of the candidate. */
uint32_t security_md5_encrypt_func(const char* text, const char* key, uint32_t key_length, char** output,
                                   uint32_t* output_length);
uint32_t security_verify_md5_hash_func(const char* stored, uint32_t stored_length, const char* candidate,
                                       uint32_t candidate_length, char** output, uint32_t* output_length);

/* ------------------------------------------------------------------------------- secrets: salted hashes */

/* A hash string is "$TYPE$SALT$DIGEST": type 1 is MD5 and 3 SHA-1, the salt 1 to 8 hexadecimal digits, and
 * the digest, over secret, salt and secret again, as many of its hexadecimal digits as it has bytes (16, 20).
 */

/* A number as text: hexadecimal for the radix character 'x', else decimal. output holds 11 bytes. */
void security_ltoa(char* output, char radix, uint32_t value);

/* A random salt. *length asks for a length and receives the one given: whatever was asked for, 1 to 8; more
 * than 64 is SECURITY_ERR_CRYPT. output holds 9 bytes. Seeds srandom(3). The two are the same. */
uint32_t security_gen_salt(char* output, int32_t* length);
uint32_t security_gen_fix_len_salt(char* output, int32_t* length);

/* The digest over secret, salt and secret as hexadecimal text, by OpenSSL's name for it
 * (EVP_get_digestbyname(3)); SECURITY_ERR_NO_CIPHER where it has none of that name. All 1024 bytes of output
 * are written, zero behind the text. *output_length is the digest's length in bytes, which is half of the
 * text's. */
uint32_t security_calculate_hash(const char* secret, uint32_t secret_length, const char* salt,
                                 uint32_t salt_length, char* output, uint32_t* output_length,
                                 const char* digest_name);

/* A new hash string of type 1. output holds 1036 bytes; *output_length is the length of the string, behind
 * which the other half of the digest and zeros stand. */
uint32_t security_calculate_md5_shadowed_hash(const char* secret, uint32_t secret_length, char* output,
                                              uint32_t* output_length);

/* Writes the name of a digest type ("none", "md5", "sha1" for 0, 1, 3) into name, which holds 8 bytes, and
 * answers it; null, with an empty name, for any other. */
char* security_get_digest_name_from_encryption_type(char* name, int32_t digest_type);

/* 0 when the secret has the expected digest text, compared in constant time; SECURITY_ERR_CRYPT when not, or
 * when expected_length is not the digest's length in bytes. */
uint32_t security_verify_hash(const char* secret, uint32_t secret_length, const char* salt,
                              uint32_t salt_length, const char* expected, uint32_t expected_length,
                              const char* digest_name);

/* 0 when the secret is the one of the hash string, a NUL-terminated text whose length stored_length gives.
 * SECURITY_ERR_CRYPT when not, for a null text and for one that is no hash string; SECURITY_ERR_NO_CIPHER for
 * type 0. Nothing is read past the text, whatever stored_length says. */
uint32_t security_verify_shadowed_hash(const char* secret, uint32_t secret_length, const char* stored,
                                       uint32_t stored_length);

/* ---------------------------------------------------------------------------------- password strength */

/* Judges a new password: our own rules, then cracklib with the dictionary
 * /tovo/etc/quillsecurity/cracklib_dict, without which every password is rejected. Answers 0 when it is
 * accepted or checking is off (SECURITY_SERVICE_PASSWORD_STRENGTH is 0; connection 0xffffffff does not ask),
 * else the address of the message of the first rule that it breaks, valid until the next check;
 * cmi_common_user_err_str holds a copy. Null texts count as empty. Rules and cracklib look at bounded copies:
 * the first 255 characters decide. */
uintptr_t security_user_password_check_psec_norm(uint32_t connection, const char* password,
                                                 const char* user_name);

/* Our own rules alone: the message, or null. The message lies in one buffer, which every call overwrites. */
char* security_check_strength_main(const char* user_name, const char* password);

/* Work in place and answer the text; null stays null. reverse_fun reverses it, bin_sort_fun sorts its
 * characters as signed bytes, change_to_lower turns all but the first to lower case. */
char* reverse_fun(char* text);
char* bin_sort_fun(char* text);
char* change_to_lower(char* text);

/* ----------------------------------------------------------------------------------------- user records */

/* Handler of the user record; users with user_type 1 are kept apart from all others.
 *   GET_REQ      fills the record; SECURITY_ERR_NOT_FOUND
 *   GETNEXT_REQ  fills it with the user that follows; SECURITY_ERR_END_OF_TABLE
 *   SET_REQ      stores it, a clear password (encryption_type 0) as cipher text
 *   DEL_REQ      deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and answers 0. What is read comes back in clear, with encryption_type 0.
 * SECURITY_ERR_CRYPT when encoding failed, with the record untouched, or decoding, with user_type left
 * big-endian (a stored hash does not decode). A name without a terminator is refused with
 * SECURITY_ERR_REQUEST_TEXT, a password without one that is to be encoded with SECURITY_ERR_CRYPT. */
uint32_t security_user_config(uint32_t handle, uint32_t operation, security_user* record);

/* Asks the daemon for the same; the record changes only with status 0, also where the handler would fill it
 * and answer SECURITY_ERR_CRYPT. Undeliverable requests as for cmi_enable_info_config. */
uint32_t cmi_security_user_config(uint32_t connection, uint32_t operation, security_user* record);

/* ------------------------------------------------------------------------------ roles and locales of users
 */

/* Handler of a user's list of roles, which is stored as it is given: neither names nor doubles are checked.
 *   GET_REQ      fills the record; SECURITY_ERR_NOT_FOUND, with num_roles turned to big-endian
 *   GETNEXT_REQ  fills it with the list that follows; SECURITY_ERR_END_OF_TABLE, num_roles turned as well
 *   SET_REQ      stores the list and leaves num_roles big-endian
 *   DEL_REQ      deletes it; SECURITY_ERR_NOT_FOUND
 * Any other operation does nothing and answers 0. Entries past the count read as zero. A SET with a count
 * outside 0 to 64 is SECURITY_ERR_REQUEST_COUNT and touches nothing. A name without a terminator counts with
 * its first 127 characters. */
uint32_t security_user_roles_config(uint32_t handle, uint32_t operation, security_user_roles* record);

/* The same for locales, with these differences: num_locales is turned back on every path but SET_REQ, and a
 * failure leaves the record untouched. GETNEXT_REQ has no status for its end: it answers 0 with the record
 * untouched, also from a name that has no list; it goes on past the last list, into whatever record follows.
 */
uint32_t security_user_locales_config(uint32_t handle, uint32_t operation, security_user_locales* record);

/* ------------------------------------------------------------------------------------- privilege levels */

/* Handler of a privilege level's record.
 *   GET_REQ      fills the record; SECURITY_ERR_NO_PRIV_LVL
 *   GETNEXT_REQ  fills it with the level that follows; SECURITY_ERR_NO_MORE_PRIV_LVLS
 *   SET_REQ      stores it, a secret of SECURITY_ENCRYPTION_TO_HASH as hash string; SECURITY_ERR_CRYPT when
 *                hashing failed or the secret has no terminator
 *   DEL_REQ      deletes it; SECURITY_PSS_NO_KEY
 *
 * The hash string goes over the start of the field without a terminator, and what stood behind it stays.
 * Clear the field behind a longer secret first, or its tail is stored. Any other operation does nothing and
 * answers 0. The record's words are in host order before and after. */
uint32_t security_priv_info_config(uint32_t handle, uint32_t operation, security_priv_info* record);

/* Asks the daemon for the same; the record changes only with status 0. Undeliverable requests as for
 * cmi_enable_info_config. */
uint32_t cmi_security_priv_info_config(uint32_t connection, uint32_t operation, security_priv_info* record);

/* The same for levels 1 to 15 in turn, each starting from what the last reply left in the record, up to the
 * first status that is not 0. */
uint32_t cmi_security_priv_info_config_all(uint32_t connection, uint32_t operation,
                                           security_priv_info* record);

/* The same with an empty record, going on where a level has none (SECURITY_PSS_NO_KEY). */
uint32_t cmi_security_priv_info_cleanup(uint32_t connection, uint32_t operation);

/* Removes the secrets of all levels. */
uint32_t cmi_security_vsh_callback_priv_info_cleanup(uint32_t connection);

/* Sets *matched to 1 when the candidate is the secret of the level, else to 0. Answers 0 when it is, the
 * status of security_verify_shadowed_hash when it is not, SECURITY_ERR_NO_PRIV_LVL when the level has none,
 * or the status of the request. */
uint32_t security_verify_priv_level_secret(uint32_t connection, const char* candidate,
                                           uint32_t candidate_length, int32_t level, uint32_t* matched);

/* Writes the name of the role that goes with a privilege level into buffer, which holds 1024 bytes and is
 * zero behind it, and answers the buffer: "priv-0" to "priv-14"; for 15 "network-admin" in the default
 * virtual device context and "vdc-admin" in others; nothing for any other level. */
char* security_map_priv_lvl_to_roles(int32_t level, char* buffer);

/* Privilege levels are always enabled: 1. */
uint32_t vsh_is_privilege_enabled(void);
uint32_t vsh_is_priv_enable(void);

/* Expired users are never let in: 0. */
uint32_t is_expired_user_allowed(void);

/* -------------------------------------------------------------------------------------- local accounts */

/* All virtual device contexts share one passwd and one shadow file. Accounts of context 1 are stored under
 * their plain names, those of context NN as NAME#NN#. These functions see the files as the calling process's
 * context does (sysmgrcmn_vdc_id_get, asked each time). Entries are the C library's, changed in place, and
 * live until its next call; mapped names live in static buffers. None of them may run beside another. */

/* The context that a stored name belongs to: 1 unless it ends in '#', else the number in the two characters
 * before that, and INT32_MIN, which is no context, where none can be read. */
int32_t security_get_vdc_from_username(const char* name);

/* The next entry of the caller's context, by its plain name; null at the end. Opened and closed with
 * setpwent(3), setspent(3) and their like, or the stream. */
struct passwd* vdc_getpwent(void);
struct spwd* vdc_getspent(void);
struct passwd* vdc_fgetpwent(FILE* stream);
struct spwd* vdc_fgetspent(FILE* stream);

/* The entry of a plain name in the caller's context; null when there is none, and with errno EINVAL when the
 * context's number has no place in a name (above 99). */
struct passwd* vdc_getpwnam(const char* name);
struct spwd* vdc_getspnam(const char* name);

/* The entry of a user id of any context. Outside context 1 its name loses four characters, whatever they are;
 * a shorter name stays. */
struct passwd* vdc_getpwuid(uid_t uid);

/* The stored form of a plain name, cut to 131 characters, or of a file's name, cut to 1023. Each has a buffer
 * of its own; that of user names is shared with vdc_getpwnam and vdc_getspnam. Null counts as empty. */
char* security_get_system_username(const char* name);
char* security_get_system_filename(const char* name);

/* The platform's shadow entry of a stored name in *entry, null when there is none. A failed look-up is null
 * and its status; the second function answers 0 even then. */
uint32_t security_conf_get_vdc_user(uint32_t handle, const char* name, struct platform_shadow_entry** entry);
uint32_t security_conf_get_user(uint32_t handle, const char* name, struct platform_shadow_entry** entry);

/* 1 when the name is one of the system's own, listed one a line in /tovo/etc/quillsecurity/internalusers,
 * else 0. The list, of any length, is read at the first call; one that cannot be read then is empty for good.
 * While there is no memory for it, every name counts as the system's own, which keeps its accounts. */
uint32_t is_internal_user(const char* name);

/* Counts the accounts of the caller's context that stand in both files. Answers 0 always, with those that
 * could be read where memory ran out; handle is not used. */
uint32_t cmi_security_num_users_get(uint32_t handle, uint32_t* count);

/* Name order: shorter names first, then by bytes. Negative, 0 or positive; the arguments are texts. */
int32_t security_conf_compare_username(const void* a, const void* b);

/* Replaces the stored name in `name` (128 bytes; empty to start) by the one of the shadow file that follows
 * it in name order; SECURITY_ERR_END_OF_TABLE, or SECURITY_ERR_TRANSPORT | ENOMEM where memory ran out before
 * the file's end, with the name as it was. Names of every context take part. One of 128 characters or more is
 * skipped. handle is not used. */
uint32_t security_conf_user_getnext(uint32_t handle, char* name);

/* The same for the roles of a user, which the daemon is asked for: `role` holds 65 bytes.
 * SECURITY_ERR_NO_MORE_ROLES; SECURITY_ERR_NOT_FOUND for a user name of 128 characters or more;
 * SECURITY_ERR_TRANSPORT | errno; or the daemon's status. */
uint32_t security_conf_user_role_getnext(uint32_t session, const char* user, char* role);

/* The text behind the first `marker` in it, or the whole text. */
char* security_conf_get_stderr(char* text, const char* marker);

/* Runs a command with /bin/sh -c, in an environment of one variable (PATH). Its output and errors go to the
 * files named, made with mode 0777 & ~umask and not truncated; null leaves the stream as it is. Answers the
 * exit status, 0 to 255 (127 also when there is no shell); 0 as well when a signal ended the command; -1 for
 * a null command, when fork(2) failed, and with errno ETIME when it was still running after 150 seconds and
 * was killed. Looks every 25 ms. Leaves no child behind. */
int32_t security_conf_system(const char* command, const char* out_path, const char* err_path);

/* Removes the accounts of a context that are not internal, 256 at the most, with userdel(8) and their homes
 * below /bootflash/home and /tmp/home. The log says what became of each: deleted, whatever userdel's exit
 * status, or failed. A name is cut at 31 characters. Homes of a name from 23 characters on are not removed,
 * since the command does not fit. Nothing is run for a name that the shell would not take for one plain word
 * (letters, digits and "._-#", not beginning with '-' or '#', neither "." nor "..", a '$' at the end), nor
 * for one that was cut to that of another account; both are logged as failed with -1. So is, in a line of its
 * own, a file that memory did not suffice to read. What the commands print goes to "/tmp/userdel.out" and
 * "/tmp/userdel.err", or where these cannot be made the caller's, to the caller's own streams. */
void security_del_vdc_users_for_vdc(int32_t vdc);

/* The same for the calling process's context. */
void security_del_vdc_users(void);

/* ------------------------------------------------------------------------------- storage for loaders */

/* Kept for the programs that load the library, which alone read and write it. All zero at load. */
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
