/* The request channel from configuration clients to the security daemon.
 *
 * The reference sends each request as one message over an AF_UNIX socket of type SOCK_SEQPACKET (unix(7)),
 * named quillsecurityd.sock in the runtime directory of the calling process's context (sysmgr.h):
 * $QUILL_RUNTIME_DIR, an absolute path, or /run/quillsecurity, and in context N, other than 1, the folder
 * vdc_N below it. It connects on first use, once per process, and again after the daemon was restarted, the
 * process forked or its context changed. 32-bit and 64-bit clients and daemons can be mixed.
 */
#ifndef QUILLPLATFORM_SHELL_H
#define QUILLPLATFORM_SHELL_H

#include <stdint.h>

/* The largest record of a request or a reply in bytes; both sides refuse a longer one. */
#define SECURITY_CMI_MAX_RECORD 20480u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sends one request and waits for its reply.
 *   request     the record, of *length bytes, already in wire byte order
 *   reply       receives a block from malloc(3) with the record of the reply, or null if it has none or one
 *               shorter than the request's; the caller releases it with free(3), whatever the status
 *   length      in: bytes of the request; out: bytes of the reply, 0 if there is none
 *   connection  the caller's connection number; the reference has one connection and does not use it
 * Returns the daemon's status, which is not negative (SECURITY_ERR_BUSY if the daemon has too many clients and
 * has not read the request, SECURITY_ERR_CONTEXT if it serves another context), or -1 with errno set if there
 * was no reply:
 *   ENOENT, ECONNREFUSED  no daemon of this context is running
 *   EACCES                the caller may not use the socket
 *   EINVAL, ENAMETOOLONG  $QUILL_RUNTIME_DIR is not an absolute path, or too long
 *   ETIMEDOUT             no reply within security_cmi_timeout; the connection is then closed, so that a late
 *                         reply is not taken for that of the next request
 *   ECONNRESET            the daemon ended while it had the request, which may or may not have been executed
 *   ESTALE                the request would store a list of roles or locales that was read, in order to change
 *                         it, on a connection that is lost: nothing was sent; read the list again
 *   EMSGSIZE              the record is longer than SECURITY_CMI_MAX_RECORD
 *   EPROTO                the peer does not follow the protocol
 *   others                as of connect(2), send(2), recv(2) and malloc(3) */
int32_t security_cmi(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t connection);

/* The same for one-way requests: `reply` is null, and only the daemon's status is received. */
int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                      uint32_t connection);

/* Time limit of a request in seconds; 0 stands for the default, 60. */
extern uint32_t security_cmi_timeout;

/* The user and session on whose behalf the client acts, sent with each request for the daemon's log; null for
 * none. The daemon's permissions depend only on the credentials of the client process. */
extern const char* security_cmi_username;
extern uint32_t security_cmi_session_id;

/* Splits the name of a file, "DEVICE:PATH", at its first colon into two buffers of 256 bytes each. A leading
 * slash of the path is dropped: "bootflash:/keys/a.pub" and "bootflash:keys/a.pub" are the same. The device
 * is empty if there is no colon, and not checked. Returns 0, or -1, with both buffers empty, if a part does
 * not fit. */
int32_t vsh_xml_parse_uri(const char* uri, char* device, char* path);

/* Return 0 if there is a role, or a locale, of this name, else -1. The reference has the built-in roles
 * network-admin, network-operator, vdc-admin, vdc-operator and priv-0 to priv-15, and the roles and locales
 * in its configuration (quillplatform/sysmgr.h). `connection` is not used. */
int32_t vshd_perm_group_role_name_verify(uint32_t connection, const char* role);
int32_t vshd_perm_locale_name_verify(uint32_t connection, const char* locale);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
