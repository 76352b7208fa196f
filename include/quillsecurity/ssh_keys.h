/* SSH keys of users: the public key stored for each user, reading key files, and the key pair in a user's
 * home directory. Included by quillsecurity.h, whose conventions hold here.
 *
 * Checking and converting key files runs ssh-keygen(1) with security_conf_system() and the files
 * "/tmp/tmpkey.pub", "/tmp/outkey.pub" and "/tmp/errkey.pub" for its input, output and errors. A lock
 * (flock(2)) on /tmp keeps other processes from using them at the same time; a process waits up to 10 seconds
 * for it. Each file is replaced by a new one before it is used. If that is impossible, because the existing
 * file belongs to somebody else, the call fails as if ssh-keygen could not be run. */
#ifndef QUILLSECURITY_SSH_KEYS_H
#define QUILLSECURITY_SSH_KEYS_H

#include "quillsecurity/records.h"

#include <stdint.h>

/* Formats of key files; key_format of an ssh_key_new_rec. */
enum security_sshkey_format {
    SSHKEY_FMT_OPENSSH = 0,         /* one line of OpenSSH text, as in authorized_keys(5), see sshd(8) */
    SSHKEY_FMT_SSH2 = 1,            /* an SSH2 public key file (RFC 4716) */
    SSHKEY_FMT_X509_PEM = 2,        /* an X.509 certificate in PEM (RFC 7468) */
    SSHKEY_FMT_X509V3_SIGN_RSA = 3, /* a text that begins with the word "x509v3-sign-rsa" and a blank */
    SSHKEY_FMT_NOT_PUBLIC = 4       /* not a public key; refused */
};

/* Locations of a client's file, and the directories that their paths are relative to. */
enum security_location {
    SECURITY_LOCATION_TEMPORARY = -1, /* none: a temporary copy, deleted after it was read */
    SECURITY_LOCATION_BOOTFLASH = 8,  /* "/bootflash" */
    SECURITY_LOCATION_SLOT0 = 16,     /* "/slot0" */
    SECURITY_LOCATION_VOLATILE = 256  /* "/volatile" */
};

/* Commands about the key pair of a user, for cmi_user_sshkey_config(). The private key is ~/.ssh/id_rsa or
 * ~/.ssh/id_dsa, and the public key is in the same folder under the same name with .pub at its end. Only
 * administrators may send commands, and only for accounts that the daemon of this context has created: the
 * home is /bootflash/home/NAME, the user id is 1000 or more, and the name is not that of an internal user.
 * The daemon executes a command with the user's rights. The home and ~/.ssh must be folders of the user and
 * no symbolic links.
 *
 * An import reads a file that the user can read, given by its absolute path. The file must have exactly one
 * PEM block, a private key without headers; text outside the block is ignored. The comment of the public key
 * is the user's name. An export creates a file with the private key in ~/.ssh, of mode 0600, and another with
 * the public key, whose name ends in .pub. The file is given by its path or by its name alone, which has 1 to
 * 64 characters: letters, digits and "._-". The name must not begin with '.', '-', "authorized_", "config",
 * "environment", "id_", "identity", "known_" or "rc", as the files do that ssh(1) and sshd(8) read there.
 *
 * The value of a request is the size in bits of the pair to be generated; the value of a reply is the size of
 * the present pair, 0 if there is none. Errors:
 *   SECURITY_ERR_KEY_PAIR_EXISTS  generate and import: the user has a pair of this type
 *   SECURITY_ERR_NOT_FOUND        export and delete: the user has no pair of this type
 *   SECURITY_ERR_NO_USER          no account of the kind described above, or its home is missing
 *   SECURITY_ERR_FILE_OPEN        import: the file does not exist, or the user cannot read it; export: the
 *                                 file exists already, or its name is not permitted
 *   SECURITY_ERR_SSHKEY_FORMAT    import: not exactly one block, or the block is not a private key of this
 *                                 type without a passphrase
 *   SECURITY_ERR_NOT_SUPPORTED    an unknown command, a passphrase, or a size that cannot be generated
 *   SECURITY_ERR_KEY_PAIR         ssh-keygen or the file system failed, the user stopped the process that
 *                                 executes the command, or it took longer than 60 seconds to generate or 5
 *                                 for anything else; the daemon's log says which */
enum security_key_pair_command {
    SECURITY_KEY_PAIR_GENERATE_RSA = 1, /* SET_REQ; value 1024 to 4096, or 0 for 2048 */
    SECURITY_KEY_PAIR_IMPORT_RSA = 2,   /* SET_REQ; first_text must be empty, second_text is the file */
    SECURITY_KEY_PAIR_IMPORT_DSA = 3,
    SECURITY_KEY_PAIR_EXPORT_RSA = 4, /* SET_REQ; texts as for an import; the file must not exist */
    SECURITY_KEY_PAIR_EXPORT_DSA = 5,
    SECURITY_KEY_PAIR_GENERATE_DSA = 6, /* SET_REQ; value 1024, or 0 for 1024 */
    SECURITY_KEY_PAIR_DELETE_RSA = 7,   /* DEL_REQ */
    SECURITY_KEY_PAIR_DELETE_DSA = 8,
    SECURITY_KEY_PAIR_SIZE_RSA = 9, /* GET_REQ; the value is the size */
    SECURITY_KEY_PAIR_SIZE_DSA = 10
};

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ------------------------------------------------------------------------------------------- handlers */

/* Handlers of a user's key: as one line of OpenSSH text, and as the text of a file in another format. A user
 * has one key.
 *   GET_REQ      reads the key into the fields after user_name. SECURITY_ERR_NOT_FOUND if the user has no key
 *                in this format.
 *   GETNEXT_REQ  reads the whole record of the first user after user_name; start with an empty name.
 *                SECURITY_ERR_END_OF_TABLE if there is none.
 *   SET_REQ      deletes the user's key in the other format, then stores this one. If deleting fails, nothing
 *                is stored; if storing fails, the user has no key.
 *   DEL_REQ      deletes the key in this format. SECURITY_ERR_NOT_FOUND if there is none.
 * Any other operation does nothing and returns 0. The whole field of the text is sent and stored, whatever
 * the length of the text. The record changes only with status 0. Returns SECURITY_ERR_REQUEST_TEXT for a
 * user_name without a terminator; other statuses of the store are returned unchanged. */
uint32_t security_user_ssh_key_config(uint32_t handle, uint32_t operation, ssh_key_rec* record);
uint32_t security_user_ssh_key_new_config(uint32_t handle, uint32_t operation, ssh_key_new_rec* record);

/* ------------------------------------------------------------------------------------------- key files */

/* Detects the format of the file at `path` and stores it (enum security_sshkey_format). A file whose first
 * line opens a private key is SSHKEY_FMT_NOT_PUBLIC, unless it has a certificate. Returns 0 on success.
 *   SECURITY_ERR_FILE_OPEN    The path cannot be opened, or is neither a regular file nor /dev/null. Or it
 *                             cannot be part of a command line: it has more than 62 characters, or others
 *                             than letters, digits and "/._-+,:=@%#~", or starts with '#' or '~', or is "-".
 *   SECURITY_ERR_SSHKEY_TYPE  ssh-keygen could not be run or took more than 150 seconds, or memory ran out.
 * For a certificate the file descriptor is left open in the calling process. */
uint32_t sshkey_check_type(const char* path, uint8_t* format);

/* Returns 1 for an empty file, 0 for any other, or SECURITY_ERR_FILE_OPEN. */
uint32_t sshkey_is_empty_stdout(const char* path);

/* Returns 1 if the file at output_path, the output of "ssh-keygen -l -f KEY_PATH", lists the file at key_path
 * as a public key, else 0; SECURITY_ERR_FILE_OPEN if one of the two cannot be opened. */
uint32_t sshkey_is_public_stdout(const char* output_path, const char* key_path);

/* Reads a key file into the record for its format, and stores the format in *format. Of an OpenSSH key the
 * first line, up to and including the newline and at most 2099 characters, is read into *record; a file of
 * any other format into *new_record, as by sshkey_new_copy_file_content(). The caller zeroes both records
 * first. Returns 0 on success, a status of sshkey_check_type(), or
 *   SECURITY_ERR_SSHKEY_FORMAT  not a public key; or a line of the file opens a private key; or the text has
 *                               a NUL or 8192 characters or more, or cannot be read to its end
 *   SECURITY_ERR_FILE_READ      there is no first line, or it cannot be read
 *   SECURITY_ERR_REQUEST_TEXT   the user's name has more than 127 characters
 * On failure both records are still zero. */
uint32_t copy_sshkey_file_content(const char* path, const char* user_name, ssh_key_rec* record,
                                  ssh_key_new_rec* new_record, uint8_t* format);

/* Reads the text of a key file of the given format, which is not checked: an SSH2 key and a certificate up
 * to its last line, any other text to the end of the file. The caller zeroes *record first; it is zero
 * after a failure too. Returns 0, SECURITY_ERR_FILE_OPEN, SECURITY_ERR_FILE_READ,
 * SECURITY_ERR_SSHKEY_FORMAT for a text with a NUL or with 8192 characters or more, or
 * SECURITY_ERR_REQUEST_TEXT for a user name of more than 127. */
uint32_t sshkey_new_copy_file_content(const char* path, const char* user_name, uint8_t format,
                                      ssh_key_new_rec* record);

/* Converts the key in *source to one line of OpenSSH text in *target.
 *   SSHKEY_FMT_SSH2             imported by ssh-keygen, newline included. If ssh-keygen imports nothing, the
 *                               status is 0 too and key_text is unchanged: the caller checks it.
 *   SSHKEY_FMT_X509_PEM         the certificate's RSA or DSA key (RFC 4253 section 6.6), of up to 1572 bytes,
 *                               without a comment or a newline.
 *   SSHKEY_FMT_X509V3_SIGN_RSA  the text without a newline at its end, which is removed from *source too.
 * Returns 0 on success. SECURITY_ERR_SSHKEY_CONVERT if the conversion fails, and for a null source, a source
 * in SSHKEY_FMT_OPENSSH, a text without a terminator and a copied text of more than 2199 characters.
 * SECURITY_ERR_SSHKEY_FORMAT for any other format and for a text that opens a private key. */
uint32_t convert_other_ssh_key_to_openssh(ssh_key_new_rec* source, ssh_key_rec* target);

/* ------------------------------------------------------------------------------------------- requests */

/* Reads a key file and sends it to the daemon as the user's key; `operation` is SET_REQ. `path` is a buffer
 * of 256 bytes, relative to the directory of location_type (enum security_location). On a device the path
 * begins with "/"; if $SYSMGR_VDC_ID is set to a number other than 1, "/vdc_N" is first inserted in front of
 * it, in the buffer. A temporary file (SECURITY_LOCATION_TEMPORARY) is deleted on failure too. Returns, with
 * nothing sent, a status of copy_sshkey_file_content() or SECURITY_ERR_URI_TYPE for another location; else
 * the daemon's status, or 0xffffffff with errno set if the request could not be delivered. */
uint32_t security_sshkey_send(char* path, const char* user_name, int32_t location_type, uint32_t operation,
                              uint32_t connection);

/* Sends a command about a user's own key pair (enum security_key_pair_command). The texts are sent with kinds
 * 2 to 5 only and may be null for empty. A name or text that does not fit its field is cut. Sends *value, and
 * with status 0 replaces it by the reply's. The time limit is 180 seconds; security_cmi_timeout is restored.
 * Returns the daemon's status, or 0xffffffff if the request could not be delivered and, with nothing sent,
 * for a null user_name. */
uint32_t cmi_user_sshkey_config(uint32_t connection, uint32_t operation, uint32_t kind, const char* user_name,
                                const char* first_text, const char* second_text, uint32_t* value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
