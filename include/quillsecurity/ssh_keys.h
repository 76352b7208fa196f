/* SSH keys of users: the public key that the store keeps for a user, key files on their way there, and the
 * key pair in a user's home.
 *
 * Included by quillsecurity.h, whose conventions hold here. Checking and converting key files runs
 * ssh-keygen(1) through security_conf_system(), with "/tmp/tmpkey.pub", "/tmp/outkey.pub" and
 * "/tmp/errkey.pub" for its input, output and errors. Processes take turns, by a lock (flock(2)) on /tmp that
 * each waits for up to 10 seconds. Each file is made anew before it is used; where that is not possible,
 * because somebody else's file has the name, the call fails as if ssh-keygen could not be run. */
#ifndef QUILLSECURITY_SSH_KEYS_H
#define QUILLSECURITY_SSH_KEYS_H

#include "quillsecurity/records.h"

#include <stdint.h>

/* What a key file holds; ssh_key_new_rec's key_format. */
enum security_sshkey_format {
    SSHKEY_FMT_OPENSSH = 0,         /* one line of OpenSSH text, as in authorized_keys(5), see sshd(8) */
    SSHKEY_FMT_SSH2 = 1,            /* an SSH2 public key file (RFC 4716) */
    SSHKEY_FMT_X509_PEM = 2,        /* an X.509 certificate in PEM (RFC 7468) */
    SSHKEY_FMT_X509V3_SIGN_RSA = 3, /* a text that begins with the word "x509v3-sign-rsa" and a blank */
    SSHKEY_FMT_NOT_PUBLIC = 4       /* no public key; refused */
};

/* Where a client's file lies. The device's directory goes before the path. */
enum security_location {
    SECURITY_LOCATION_TEMPORARY = -1, /* the path as it is; a temporary copy, deleted once it was read */
    SECURITY_LOCATION_BOOTFLASH = 8,  /* "/bootflash" */
    SECURITY_LOCATION_SLOT0 = 16,     /* "/slot0" */
    SECURITY_LOCATION_VOLATILE = 256  /* "/volatile" */
};

/* Commands about the key pair of a user of this system, for cmi_user_sshkey_config(). The pair is
 * ~/.ssh/id_rsa or ~/.ssh/id_dsa with the public half beside it in a file named .pub, both the user's own.
 * The daemon does all of it with the user's rights, so a file must be the user's to read or to write.
 * Administrators may ask.
 *
 * value: in, the bits of the pair to be made; out, the bits of the pair that is there now, 0 where none is.
 * Where a pair is there already, generating and importing answer SECURITY_ERR_KEY_PAIR_EXISTS; where none is,
 * exporting answers SECURITY_ERR_NOT_FOUND, and so does deleting. SECURITY_ERR_NO_USER: no such user, one
 * without a home, or one of the system's own (user ids below 1000). SECURITY_ERR_FILE_OPEN: the file of an
 * import or export is not there, not the user's to read, in the way, or not named by an absolute path.
 * SECURITY_ERR_SSHKEY_FORMAT: the file to import holds no private key of this type without a passphrase.
 * SECURITY_ERR_NOT_SUPPORTED: another kind, a passphrase, or a number of bits that is not offered.
 * SECURITY_ERR_KEY_PAIR: ssh-keygen or the file system failed, or they took more than 60 seconds. */
enum security_key_pair_command {
    SECURITY_KEY_PAIR_GENERATE_RSA = 1, /* SET_REQ; value 1024 to 4096, or 0 for 2048 */
    SECURITY_KEY_PAIR_IMPORT_RSA = 2,   /* SET_REQ; first text: passphrase, must be empty; second: the file */
    SECURITY_KEY_PAIR_IMPORT_DSA = 3,
    SECURITY_KEY_PAIR_EXPORT_RSA = 4, /* SET_REQ; texts likewise; the file must be new, and gets mode 0600 */
    SECURITY_KEY_PAIR_EXPORT_DSA = 5,
    SECURITY_KEY_PAIR_GENERATE_DSA = 6, /* SET_REQ; value 1024, or 0 for it */
    SECURITY_KEY_PAIR_DELETE_RSA = 7,   /* DEL_REQ */
    SECURITY_KEY_PAIR_DELETE_DSA = 8,
    SECURITY_KEY_PAIR_SIZE_RSA = 9, /* GET_REQ; tells the value */
    SECURITY_KEY_PAIR_SIZE_DSA = 10
};

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ------------------------------------------------------------------------------------------- handlers */

/* Handlers of a user's key, as one line of OpenSSH text and as the text of a file of another format. A user
 * has one key.
 *   GET_REQ      fills the record behind user_name. SECURITY_ERR_NOT_FOUND when the user has no key in this
 *                format.
 *   GETNEXT_REQ  fills the whole record with the first user's after user_name, an empty name starting.
 *                SECURITY_ERR_END_OF_TABLE when there is none.
 *   SET_REQ      deletes the user's key in the other format, then stores this one. Where the delete fails,
 *                nothing is stored; where the store fails, the user has no key.
 *   DEL_REQ      deletes the key in this format. SECURITY_ERR_NOT_FOUND when there is none.
 * Any other operation does nothing and answers 0. The text travels and is stored in its whole field,
 * whatever its length. A record is written with status 0 only. A user_name without a terminator answers
 * SECURITY_ERR_REQUEST_TEXT; other statuses of the store pass through. */
uint32_t security_user_ssh_key_config(uint32_t handle, uint32_t operation, ssh_key_rec* record);
uint32_t security_user_ssh_key_new_config(uint32_t handle, uint32_t operation, ssh_key_new_rec* record);

/* ------------------------------------------------------------------------------------------- key files */

/* Decides what the file at `path` holds and stores it (enum security_sshkey_format). A file whose first line
 * opens a private key of any kind is SSHKEY_FMT_NOT_PUBLIC, unless a certificate is in it. Answers 0;
 * SECURITY_ERR_FILE_OPEN where the path cannot be opened, is no regular file nor /dev/null, is longer than 62
 * characters or holds one that is not a letter, a digit or of "/._-+,:=@%#~" (it goes into a command line;
 * '#' and '~' not in front, '-' not alone); SECURITY_ERR_SSHKEY_TYPE where ssh-keygen could not be run or was
 * not done after 150 seconds, or memory ran out. Certificates: the file descriptor stays open in the calling
 * process. */
uint32_t sshkey_check_type(const char* path, uint8_t* format);

/* 1 for an empty file, 0 for any other, SECURITY_ERR_FILE_OPEN. */
uint32_t sshkey_is_empty_stdout(const char* path);

/* Whether the output of "ssh-keygen -l -f KEY_PATH", kept in the file at output_path, lists that file as a
 * public key: 1 or 0; SECURITY_ERR_FILE_OPEN where one of the two cannot be opened. */
uint32_t sshkey_is_public_stdout(const char* output_path, const char* key_path);

/* Reads a key file into the record that its format needs: an OpenSSH key's first line, newline included and
 * at most 2099 characters of it, into *record; any other format's text into *new_record, see below. Both
 * records are zero before. *format tells which. Answers what sshkey_check_type() answers, and
 *   SECURITY_ERR_SSHKEY_FORMAT  no public key, or a line anywhere in the file opens a private key, or the
 *                               text has a NUL or 8192 characters or more, or cannot be read to its end
 *   SECURITY_ERR_FILE_READ      there is no first line, or it cannot be read
 *   SECURITY_ERR_REQUEST_TEXT   the user's name has more than 127 characters
 * and both records are still zero then. */
uint32_t copy_sshkey_file_content(const char* path, const char* user_name, ssh_key_rec* record,
                                  ssh_key_new_rec* new_record, uint8_t* format);

/* Reads the text of a key file of this format, without looking what it is: an SSH2 key's and a certificate's
 * up to the line that ends it, any other's to the end of the file. *record is zero before, and after a
 * failure. Answers 0, SECURITY_ERR_FILE_OPEN, SECURITY_ERR_FILE_READ, SECURITY_ERR_SSHKEY_FORMAT for a text
 * with a NUL or of 8192 characters or more, or SECURITY_ERR_REQUEST_TEXT. */
uint32_t sshkey_new_copy_file_content(const char* path, const char* user_name, uint8_t format,
                                      ssh_key_new_rec* record);

/* Fills *target with the one line of OpenSSH text of *source.
 *   SSHKEY_FMT_SSH2      imported by ssh-keygen, newline included. Where it imports nothing, the status is 0
 *                        all the same and key_text stays as it was: look at it.
 *   SSHKEY_FMT_X509_PEM  built from the certificate's RSA or DSA key (RFC 4253 section 6.6) of up to 1572
 *                        bytes, without a comment or a newline.
 *   SSHKEY_FMT_X509V3_SIGN_RSA
 *                        the text as it is but for a newline at its end, which the source loses as well.
 * Answers 0; SECURITY_ERR_SSHKEY_CONVERT where that fails, for a null source, one in SSHKEY_FMT_OPENSSH, one
 * with a text that has no terminator, and a copied text of more than 2199 characters;
 * SECURITY_ERR_SSHKEY_FORMAT for another format and for a text that opens a private key. */
uint32_t convert_other_ssh_key_to_openssh(ssh_key_new_rec* source, ssh_key_rec* target);

/* ------------------------------------------------------------------------------------------- requests */

/* Reads a key file and sends it to the daemon as the user's key; `operation` is SET_REQ. The file lies at
 * `path`, a buffer of 256 bytes, on the device that location_type (enum security_location) names. On a device
 * the path begins with "/", and where SYSMGR_VDC_ID is set to a number other than 1 it is first rewritten, in
 * its buffer, to "/vdc_N" and itself. A temporary file (SECURITY_LOCATION_TEMPORARY) is deleted whatever is
 * answered. Answers what copy_sshkey_file_content() answers, with nothing sent then; SECURITY_ERR_URI_TYPE
 * for another location; else the daemon's status or, undelivered, the channel's negative result with errno
 * set. */
uint32_t security_sshkey_send(char* path, const char* user_name, int32_t location_type, uint32_t operation,
                              uint32_t connection);

/* Sends a command about a user's own key pair (enum security_key_pair_command). Texts may be null for empty,
 * and go with kinds 2 to 5 alone; a name or text that is too long for its field is cut. *value is sent, and
 * with status 0 replaced by the reply's. Waits up to 180 seconds; security_cmi_timeout is put back. A null
 * user_name answers 0xffffffff, with nothing sent. */
uint32_t cmi_user_sshkey_config(uint32_t connection, uint32_t operation, uint32_t kind, const char* user_name,
                                const char* first_text, const char* second_text, uint32_t* value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
