/* The message transport: one process announces, any number of others listen.
 *
 * A message has an opcode, which says what it is, and goes to a service point: a number at which somebody
 * listens, or 0 for all who listen at all.
 *
 * The reference is a fan-out by quillsecurityd over AF_UNIX sockets of type SOCK_SEQPACKET (unix(7)),
 * quillsecurityd.mts in the runtime directory (see shell.h). Why not a messaging library such as nng: the
 * daemon has a loop over such sockets already, the kernel keeps messages whole and in order and says who is
 * at the other end, and what is left to write, a ring of messages with a place in it for each listener, is
 * smaller than the glue. A library would bring threads into a daemon that has none, and its sockets do not
 * say who listens.
 *  - Only the process that runs the fan-out sends: listeners' connections carry nothing inwards but what they
 *    listen for, so an announcement cannot be forged.
 *  - Root and the administrators may listen, nobody else. Announcements hold no secrets, but the name in one
 *    of a failed login may be a password that somebody typed in the wrong place.
 *  - A slow listener delays nobody. The last 8192 messages are kept for those behind; whoever falls behind
 *    further loses the oldest of those it has not been sent, and is told how many (quill_mts_lost). The few
 *    that its socket has taken already still come before the gap.
 *  - Nothing is kept for those who are not listening yet.
 */
#ifndef QUILLPLATFORM_MTS_H
#define QUILLPLATFORM_MTS_H

#include <stdint.h>

/* The destination node: this system. The reference knows no other. */
#define MTS_THIS_NODE 0xFE000000u

/* The service point of everybody, that of the self-test service, and that at which the daemon waits for its
 * answer. */
#define MTS_SAP_ALL 0u
#define MTS_SAP_SELF_TEST 55u
#define MTS_SAP_SECURITY 56u

/* The opcode that stands for any, for those who listen. */
#define MTS_ANY_OPCODE 0u

/* The longest payload that the reference carries, in bytes. */
#define MTS_MAX_PAYLOAD 65535u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sends one message. `handle` is one of quill_mts_attach(), `node` MTS_THIS_NODE; a, b and c are not used.
 * Answers 0 as soon as the message is on its way, whether anybody listens or not, or -1, with the reason from
 * mts_errno_get(): EBADF, EPERM for a listener's handle, EHOSTUNREACH for another node, EMSGSIZE, EINVAL for
 * a null payload with a length, ENOMEM. */
int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t a, uint32_t b, uint32_t c);

/* The errno of the last call that failed on this handle; EBADF for no handle, 0 where none failed. */
uint32_t mts_errno_get(uint32_t handle);

/* Of a message: its opcode, its payload and the payload's size in bytes. For null: 0, null and 0. The payload
 * belongs to the message, is aligned for words, and four zero bytes stand behind it; it is null where it has
 * no bytes. */
uint32_t mts_opc_get(const void* message);
void* mts_payload_get(const void* message);
uint32_t mts_payload_size(const void* message);

/* ---- Beyond what the library imports: for programs that listen, and for the one that sends. */

/* Begins to listen for messages to a service point, those to everybody included; MTS_SAP_ALL for those alone.
 * Of them only those of one opcode, or all. Whatever is sent from now on is received in its order. Answers 0
 * and a handle, or -1 with errno set: ENOENT and ECONNREFUSED where no daemon runs, EACCES for who may not
 * listen, EUSERS where too many do, EPROTO, ETIMEDOUT after 10 seconds, or as socket(2) and connect(2) say.
 */
int32_t quill_mts_listen(uint32_t sap, uint32_t opcode, uint32_t* handle);

/* The next message, which the caller releases with quill_mts_free(); waits for it as many milliseconds, or
 * for ever with -1. Null with errno set: ETIMEDOUT, ECONNRESET where the daemon has ended, EPROTO. */
void* quill_mts_receive(uint32_t handle, int32_t milliseconds);

/* How many messages were lost between the one received before this one and this one. */
uint32_t quill_mts_lost(const void* message);

void quill_mts_free(void* message);
void quill_mts_close(uint32_t handle);

/* Makes a handle for sending, in the process that runs the fan-out: the carrier is given each message and
 * answers 0 or an errno. The handle is closed like any other. 0 when memory ran out. */
typedef int32_t (*quill_mts_carrier)(void* context, uint32_t sap, uint32_t opcode, const void* payload,
                                     uint32_t length);
uint32_t quill_mts_attach(quill_mts_carrier carrier, void* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
