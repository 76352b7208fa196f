/* The request channel from configuration clients to the security daemon.
 *
 * The reference sends each request as one message over an AF_UNIX socket of type SOCK_SEQPACKET (unix(7)),
 * quillsecurityd.sock in the runtime directory: $QUILL_RUNTIME_DIR, an absolute path, else
 * /run/quillsecurity. It connects on first use, once per process, and again after the daemon was restarted or
 * the process forked. A 32-bit client can ask a 64-bit daemon and the other way round.
 */
#ifndef QUILLPLATFORM_SHELL_H
#define QUILLPLATFORM_SHELL_H

#include <stdint.h>

/* The largest record that a request or a reply carries, in bytes; both sides refuse a longer one. */
#define SECURITY_CMI_MAX_RECORD 20480u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sends one request and waits for its reply.
 *   request     the record, of *length bytes, already in wire byte order
 *   reply       receives a block from malloc(3) with the reply's record, or null where it has none or one
 *               that is shorter than the request's; the caller frees it whatever the status
 *   length      in: bytes of the request; out: bytes of the reply, 0 where there is none
 *   connection  the caller's connection number; the reference has one connection and does not use it
 * Answers the daemon's status (0 or positive; SECURITY_ERR_BUSY where the daemon has no place for another
 * client and has not read the request), or -1 with errno set when no reply was had:
 *   ENOENT, ECONNREFUSED  no daemon is running
 *   EACCES                the socket is not open to the caller
 *   EINVAL, ENAMETOOLONG  $QUILL_RUNTIME_DIR is not an absolute path, or too long a one
 *   ETIMEDOUT             no reply within security_cmi_timeout; that connection is then closed, so that a
 *                         late reply never answers the next question
 *   ECONNRESET            the daemon ended while it had the request, which may or may not have been done
 *   EMSGSIZE              the record is longer than SECURITY_CMI_MAX_RECORD
 *   EPROTO                the peer does not speak this protocol
 *   others                as connect(2), send(2), recv(2) and malloc(3) give them */
int32_t security_cmi(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t connection);

/* The same one-way: `reply` is null, and only the status of the daemon's answer is taken. */
int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                      uint32_t connection);

/* Bound of each request in seconds; 0 stands for the default, 60. */
extern uint32_t security_cmi_timeout;

/* Who the client says it acts for, told to the daemon with each request for its log; null says nothing.
 * What the daemon permits depends on the process's own credentials alone. */
extern const char* security_cmi_username;
extern uint32_t security_cmi_session_id;

/* Splits the name of a file, "DEVICE:PATH", at its first colon into two buffers of 256 bytes each; a
 * leading slash of the path is dropped ("bootflash:/keys/a.pub" and "bootflash:keys/a.pub" are the same). A
 * text without a colon has an empty device. Which devices exist is for the caller to know. Answers 0, or -1,
 * with both buffers empty, where a part does not fit its buffer. */
int32_t vsh_xml_parse_uri(const char* uri, char* device, char* path);

/* Whether there is a role or a locale of this name: 0 when there is, -1 when not. The reference knows the
 * built-in roles network-admin, network-operator, vdc-admin, vdc-operator and priv-0 to priv-15, those that
 * its configuration adds, and the locales that its configuration lists. `connection` is not used. */
int32_t vshd_perm_group_role_name_verify(uint32_t connection, const char* role);
int32_t vshd_perm_locale_name_verify(uint32_t connection, const char* locale);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
