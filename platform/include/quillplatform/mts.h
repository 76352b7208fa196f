/* The message transport: one process sends messages, any number of processes listen.
 *
 * A message has an opcode, its type, and is addressed to a service point: a number that processes listen at,
 * or 0 for all listeners.
 *
 * The reference is a fan-out by quillsecurityd over AF_UNIX sockets of type SOCK_SEQPACKET (unix(7)), named
 * quillsecurityd.mts in the runtime directory of its context (quillplatform/shell.h). A messaging library such
 * as nng is not used: the daemon already has an event loop for such sockets, the kernel preserves message
 * boundaries and order and identifies the peer, and a ring buffer with a position for each listener is little
 * code. A library would add threads to a daemon that has none, and does not identify the peer.
 *  - Only the process that runs the fan-out can send. Listeners send only what they want to listen to, so
 *    messages cannot be forged.
 *  - Only root and the administrators may listen. Notifications have no secrets, but the user name of a
 *    failed login may be a password that was typed in the wrong place.
 *  - A slow listener does not delay others. The last 8192 messages, 4 MiB of them at most, are kept. A
 *    listener that falls further behind loses the oldest messages not yet sent to it and is told their number
 *    (quill_mts_lost()). Messages that are in its socket already are received before the gap.
 *  - A listener receives only messages that are sent after it started to listen.
 */
#ifndef QUILLPLATFORM_MTS_H
#define QUILLPLATFORM_MTS_H

#include <stdint.h>

/* The destination node: this system. The reference has no other. */
#define MTS_THIS_NODE 0xFE000000u

/* Service points: all listeners, the self-test service, and the daemon, which receives the response of the
 * self-test service there. */
#define MTS_SAP_ALL 0u
#define MTS_SAP_SELF_TEST 55u
#define MTS_SAP_SECURITY 56u

/* Any opcode, for quill_mts_listen(). */
#define MTS_ANY_OPCODE 0u

/* The longest payload of the reference in bytes. */
#define MTS_MAX_PAYLOAD 65535u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sends a message of `length` bytes. `handle` is one of quill_mts_attach(), `node` MTS_THIS_NODE; a, b and c
 * are not used. Returns 0 if the message was accepted for sending, whether there are listeners or not, or -1
 * with the reason in mts_errno_get(): EBADF; EPERM for the handle of a listener; EHOSTUNREACH for another
 * node; EMSGSIZE; EINVAL for a null payload with a length; ENOMEM. */
int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t a, uint32_t b, uint32_t c);

/* Returns the errno of the last call that failed on this handle, 0 if none failed, or EBADF for an
 * invalid handle. */
uint32_t mts_errno_get(uint32_t handle);

/* Return the opcode of a message, its payload, and the size of the payload in bytes; 0, null and 0 for null.
 * The payload belongs to the message, is aligned for 32-bit words, is followed by four zero bytes, and is
 * null if its size is 0. */
uint32_t mts_opc_get(const void* message);
void* mts_payload_get(const void* message);
uint32_t mts_payload_size(const void* message);

/* ---- Not imported by the library: for programs that listen, and for the one that sends. */

/* Starts to listen to messages of one opcode, or MTS_ANY_OPCODE, that are sent to a service point or to all
 * (MTS_SAP_ALL for only those to all). Messages that are sent from now on are received in order. Returns 0 and
 * stores a handle in *handle, which the caller closes with quill_mts_close(), or -1 with errno set:
 *   ENOENT, ECONNREFUSED  no daemon of this context is running
 *   EACCES                the caller may not listen
 *   EUSERS                there are too many listeners
 *   EXDEV                 the daemon serves another context
 *   ETIMEDOUT             no response from the daemon within 10 seconds
 *   EPROTO                the peer does not follow the protocol
 *   others                as of socket(2), connect(2), send(2), recv(2) and malloc(3) */
int32_t quill_mts_listen(uint32_t sap, uint32_t opcode, uint32_t* handle);

/* Waits for the next message, for the given time in milliseconds or without limit for -1. Returns the
 * message, which the caller releases with quill_mts_free(), or null with errno set: ETIMEDOUT; ECONNRESET if
 * the daemon has ended; EPROTO; EBADF if the handle is not one of quill_mts_listen(); ENOMEM. */
void* quill_mts_receive(uint32_t handle, int32_t milliseconds);

/* Returns the number of messages that were lost between the previous message and this one. */
uint32_t quill_mts_lost(const void* message);

/* Release a message of quill_mts_receive(), and close a handle. Null and an invalid handle are ignored. */
void quill_mts_free(void* message);
void quill_mts_close(uint32_t handle);

/* Creates a handle for sending, in the process that runs the fan-out. mts_send() then passes each message to
 * the carrier, which returns 0 or an errno. Returns the handle, to be closed with quill_mts_close(), or 0 if
 * memory ran out. */
typedef int32_t (*quill_mts_carrier)(void* context, uint32_t sap, uint32_t opcode, const void* payload,
                                     uint32_t length);
uint32_t quill_mts_attach(quill_mts_carrier carrier, void* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
