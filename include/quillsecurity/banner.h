/* The message-of-the-day banner: the character that encloses its text, and reading its file.
 * Included by quillsecurity.h, whose conventions hold here.
 */
#ifndef QUILLSECURITY_BANNER_H
#define QUILLSECURITY_BANNER_H

#include <stdint.h>
#include <stdio.h>

/* The delimiter where none was set. */
#define SECURITY_DEFAULT_BANNER_DELIMITER '#'

/* A banner file has fewer bytes than this. */
#define SECURITY_BANNER_FILE_LIMIT 10240

/* What the readers write at the most, the terminator included: each two characters of a file may become the
 * eleven of $(hostname). */
#define SECURITY_BANNER_TEXT_SIZE 56321

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Handler of the banner's delimiter, the one byte that a SECURITY_BANNER_REQUEST carries.
 *   GET_REQ      fills *delimiter, with SECURITY_DEFAULT_BANNER_DELIMITER where none is stored
 *   GETNEXT_REQ  there is never a next one: fills it with the default and answers SECURITY_PSS_NO_KEY
 *   SET_REQ      stores *delimiter
 *   DEL_REQ      deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and answers 0. Store statuses pass through and leave *delimiter. */
uint32_t security_banner_info_config(uint32_t handle, uint32_t operation, char* delimiter);

/* Asks the daemon for the same; *delimiter changes only with status 0. Undeliverable requests as for
 * cmi_enable_info_config. */
uint32_t cmi_security_banner_config(uint32_t connection, uint32_t operation, char* delimiter);

/* Read a banner's file from an open stream and write the text to display, NUL-terminated, with "\n" replaced
 * by "$(hostname)" and "\l" by "$(line)"; any other backslash stays. The text ends at a NUL byte of the file.
 * Answer the number of characters written, without the terminator: 0 for an empty file. Answer -1, with the
 * output untouched, for a file of SECURITY_BANNER_FILE_LIMIT bytes or more and one that cannot be read.
 * output holds SECURITY_BANNER_TEXT_SIZE bytes; the stream stays the caller's to close.
 *
 * In a file that ends in its first byte, security_read_banner_motd_msg takes that byte for the delimiter and
 * reads from the second one to the next delimiter. Escapes are read as the two characters they are, so with
 * an 'n' or 'l' for a delimiter "\n" and "\l" stand for what they always do and do not end the text. The
 * other reader takes such bytes for text. */
int32_t security_read_banner_motd_msg(char* output, FILE* stream);
int32_t security_read_banner_motd_msg_with_delimiter(char* output, FILE* stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
