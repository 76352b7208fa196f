/* The message-of-the-day banner: its delimiter, the character that encloses its text, and reading its file.
 * Included by quillsecurity.h, whose conventions hold here.
 */
#ifndef QUILLSECURITY_BANNER_H
#define QUILLSECURITY_BANNER_H

#include <stdint.h>
#include <stdio.h>

/* The delimiter if none is stored. */
#define SECURITY_DEFAULT_BANNER_DELIMITER '#'

/* A banner file must have fewer bytes than this. */
#define SECURITY_BANNER_FILE_LIMIT 10240

/* The most bytes that the readers write, terminator included: two characters of a file can become the eleven
 * of $(hostname). */
#define SECURITY_BANNER_TEXT_SIZE 56321

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Handler of the banner's delimiter, the one byte of a SECURITY_BANNER_REQUEST.
 *   GET_REQ      stores it in *delimiter, SECURITY_DEFAULT_BANNER_DELIMITER if none is stored
 *   GETNEXT_REQ  stores the default in *delimiter and returns SECURITY_PSS_NO_KEY: there is only one record
 *   SET_REQ      stores *delimiter in the persistent store
 *   DEL_REQ      deletes it, or returns SECURITY_PSS_NO_KEY if none is stored
 * Any other operation does nothing and returns 0. Other statuses of the store are returned unchanged, with
 * *delimiter unchanged. */
uint32_t security_banner_info_config(uint32_t handle, uint32_t operation, char* delimiter);

/* Has the daemon do the same. *delimiter changes only with status 0. Returns the daemon's status; a request
 * that cannot be delivered is reported as by cmi_enable_info_config(). */
uint32_t cmi_security_banner_config(uint32_t connection, uint32_t operation, char* delimiter);

/* Read a banner's file from an open stream and write the text to display to `output`, a buffer of
 * SECURITY_BANNER_TEXT_SIZE bytes, with "\n" (a backslash and an n) replaced by "$(hostname)" and "\l" by
 * "$(line)"; any other backslash is kept. The text ends at a NUL byte in the file. Return the number of
 * characters written, not counting the terminator: 0 for an empty file. Return -1, with `output` unchanged,
 * if the file has SECURITY_BANNER_FILE_LIMIT bytes or more, or cannot be read. The caller closes the stream.
 *
 * If the first and last byte of the file are the same, security_read_banner_motd_msg() takes that byte as the
 * delimiter and reads from the second byte up to the next delimiter. An escape is never taken apart: with the
 * delimiter 'n' or 'l', "\n" and "\l" are still replaced and do not end the text. The other function treats
 * the delimiters as part of the text. */
int32_t security_read_banner_motd_msg(char* output, FILE* stream);
int32_t security_read_banner_motd_msg_with_delimiter(char* output, FILE* stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
