/* Local accounts: the account files as a virtual device context sees them, and the command runner.
 * Included by quillsecurity.h, whose conventions hold here.
 *
 * All virtual device contexts share one passwd and one shadow file. Accounts of context 1 are stored under
 * their plain names, those of context NN as NAME#NN#. These functions return the accounts of the calling
 * process's context (sysmgrcmn_vdc_id_get(), called each time) under their plain names. Entries belong to the
 * C library, are modified in place and valid until its next call; names are in static buffers.
 */
#ifndef QUILLSECURITY_ACCOUNTS_H
#define QUILLSECURITY_ACCOUNTS_H

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

/* Returns the context that a stored name belongs to: 1 for a name that does not end in '#', else the number
 * in the two characters before the '#', or INT32_MIN, which is not a context, if there is no number. */
int32_t security_get_vdc_from_username(const char* name);

/* Return the next entry of the caller's context, or null at the end and on failure, as getpwent(3),
 * getspent(3), fgetpwent(3) and fgetspent(3) do. Start and end a walk with setpwent(3), endpwent(3) and their
 * like, or by opening and closing the stream. */
struct passwd* vdc_getpwent(void);
struct spwd* vdc_getspent(void);
struct passwd* vdc_fgetpwent(FILE* stream);
struct spwd* vdc_fgetspent(FILE* stream);

/* Return the entry of a plain name in the caller's context, or null if there is none; null with errno EINVAL
 * if the number of the context exceeds 99, which has no stored names. */
struct passwd* vdc_getpwnam(const char* name);
struct spwd* vdc_getspnam(const char* name);

/* Returns the entry of a user id, of any context. For callers outside context 1 the last four characters of
 * the name are removed, whatever they are; a shorter name is unchanged. */
struct passwd* vdc_getpwuid(uid_t uid);

/* Return the stored form, in the caller's context, of a user name, cut to 131 characters, or of a file name,
 * cut to 1023. Each is in a static buffer, which the next call overwrites; vdc_getpwnam() and vdc_getspnam()
 * use that of user names too. Null counts as empty. */
char* security_get_system_username(const char* name);
char* security_get_system_filename(const char* name);

/* Store the platform's shadow entry of a name (mygetspnam()) in *entry, null if there is none. The entry
 * belongs to the platform. If the look-up failed, store null; the first function returns the status of the
 * failure, the second 0. */
uint32_t security_conf_get_vdc_user(uint32_t handle, const char* name, struct platform_shadow_entry** entry);
uint32_t security_conf_get_user(uint32_t handle, const char* name, struct platform_shadow_entry** entry);

/* Returns 1 if the name is reserved for the system, else 0. The names are listed, one per line, in the
 * file /tovo/etc/quillsecurity/internalusers. It is read at the first call only; if it cannot be read
 * then, the list is empty. If there is no memory for the list, returns 1 for every name, which protects
 * the system's accounts. */
uint32_t is_internal_user(const char* name);

/* Counts the accounts of the caller's context that are in both files. Always returns 0, also if memory ran
 * out and some could not be read. `connection` is not used. */
uint32_t cmi_security_num_users_get(uint32_t connection, uint32_t* count);

/* Compares two NUL-terminated names in name order: shorter names first, then by bytes. Returns a negative
 * number, 0 or a positive number. */
int32_t security_conf_compare_username(const void* a, const void* b);

/* Replaces the stored name in `name`, a buffer of 128 bytes, by the name in the shadow file that follows it
 * in name order; start with an empty name. Names of all contexts are returned, except those of 128 characters
 * or more. Returns SECURITY_ERR_END_OF_TABLE if there is none, and SECURITY_ERR_TRANSPORT | ENOMEM if memory
 * ran out while reading the file; the name is then unchanged. `connection` is not used. */
uint32_t security_conf_user_getnext(uint32_t connection, char* name);

/* The same for the roles of a user, which are read from the daemon; `role` is a buffer of 65 bytes. Returns
 * SECURITY_ERR_NO_MORE_ROLES; SECURITY_ERR_NOT_FOUND for a user name of 128 characters or more;
 * SECURITY_ERR_TRANSPORT | errno for a request that could not be delivered; or the daemon's status. */
uint32_t security_conf_user_role_getnext(uint32_t session, const char* user, char* role);

/* Returns the part of the text after the first `marker`, or the whole text if it has none. */
char* security_conf_get_stderr(char* text, const char* marker);

/* Runs a command with /bin/sh -c, in an environment of one variable, PATH. Its standard output and error
 * are redirected to the named files, which are created with mode 0777 & ~umask and not truncated; null
 * leaves the stream unchanged. Returns the exit status, 0 to 255; 127 also if there is no shell, and 0 also
 * if a signal ended the command. Returns -1 for a null command and if fork(2) failed; and -1 with errno
 * ETIME if the command ran for 150 seconds and was killed. Checks every 25 ms whether it has ended. Leaves
 * no child process. */
int32_t security_conf_system(const char* command, const char* out_path, const char* err_path);

/* Removes the accounts of a context that are not internal, 256 at most: runs userdel(8) and removes their
 * home directories in /bootflash/home and /tmp/home. Each is logged as deleted, whatever the exit status
 * of userdel, or as failed. Names are cut to 31 characters. Home directories of names of 23 or more
 * characters are not removed, since the command does not fit. Nothing is run, and -1 is logged as the
 * result, for a name that is not one plain word for the shell (letters, digits and "._-#", perhaps a '$'
 * at the end; not starting with '-' or '#'; not "." or ".."), and for a name that was cut and is that of
 * another account. If memory ran out while reading the shadow file, that is logged too. The output of the
 * commands goes to "/tmp/userdel.out" and "/tmp/userdel.err", or to the caller's own streams if the caller
 * cannot own these files. */
void security_del_vdc_users_for_vdc(int32_t vdc);

/* The same for the calling process's context. */
void security_del_vdc_users(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
