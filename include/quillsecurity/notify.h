/* Notifications: user changes, announced to whoever listens on the message transport, and the messages by
 * which the daemon has the cryptographic self-tests run.
 *
 * A user change travels as a TLV message, made from a structure by the platform's TLV utilities
 * (quillplatform/tlv.h) under a field table that the library supplies. Receivers turn it back with the same
 * table.
 */
#ifndef QUILLSECURITY_NOTIFY_H
#define QUILLSECURITY_NOTIFY_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Opcodes on the message transport. */
enum security_mts_opcode {
    SECURITY_MTS_USER_CHANGE = 173, /* a security_notification as TLV message */
    SECURITY_MTS_SELF_TEST = 2213   /* a self-test's request and its response */
};

/* What happened to a user. The texts stand in security_notification_msg[type - 1]. */
#define SECURITY_USER_CHANGE_LIST(X)                          \
    X(SECURITY_USER_ADDED, 1, "New user added with username") \
    X(SECURITY_USER_DELETED, 2, "Deleted user")               \
    X(SECURITY_USER_MODIFIED, 3, "Modified user")             \
    X(SECURITY_USER_LOGIN_FAILED, 4, "Login failed for user") \
    X(SECURITY_USER_PASSWORD_CHANGED, 5, "Password changed for user")
#define SECURITY_USER_CHANGE_ROW(name, value, text) name = value,
enum security_user_change { SECURITY_USER_CHANGE_LIST(SECURITY_USER_CHANGE_ROW) };
#undef SECURITY_USER_CHANGE_ROW

typedef struct security_role_set {
    uint32_t count; /* roles in use; entries past it carry no meaning */
    char roles[64][65];
} security_role_set;
static_assert(sizeof(security_role_set) == 4164, "layout");

/* Words in host order. A name or text that fills its field has no terminator there. */
typedef struct security_notification {
    uint32_t type; /* enum security_user_change */
    char user_name[128];
    uint32_t number; /* the sender's; quillsecurityd counts its announcements from 1 */
    security_role_set role_set;
    char text[40]; /* the sender's */
} security_notification;
static_assert(sizeof(security_notification) == 4340, "layout");
static_assert(offsetof(security_notification, number) == 132, "layout");
static_assert(offsetof(security_notification, text) == 4300, "layout");

/* A field table is a header, a descriptor for each field, and a descriptor whose field_id, width, offset,
 * zero1, largest_length and minus_one are -1 and whose other words are 0. Each word is as wide as a pointer.
 */
typedef struct tlvu_table_header {
    uintptr_t size; /* of the structure, in bytes */
    const char* type_name;
    uintptr_t zero0, zero1;
} tlvu_table_header;

enum tlvu_kind {
    TLVU_KIND_BLOCK = 1,    /* a fixed number of bytes, elements of `width` */
    TLVU_KIND_STRING = 3,   /* a text that ends with its terminator or its field */
    TLVU_KIND_CONVERTED = 8 /* a field with converters of its own */
};

/* Converters of a field: addresses of functions like security_roles_struct_to_tlv(),
 * security_roles_tlv_to_struct() and security_roles_get_tlv_data_sz(). */
typedef struct tlvu_field_descriptor {
    intptr_t field_id, width, offset;                      /* width: bytes of an element */
    uintptr_t kind;                                        /* enum tlvu_kind */
    uintptr_t struct_to_tlv, tlv_to_struct, tlv_data_size; /* 0 unless TLVU_KIND_CONVERTED */
    uintptr_t zero0, zero1;
    intptr_t largest_length; /* of the whole field, in bytes */
    intptr_t minus_one;
    uintptr_t zero2;
} tlvu_field_descriptor;
static_assert(sizeof(tlvu_field_descriptor) == 12 * sizeof(void*), "layout");

/* ------------------------------------------------------------------------------------ self-test results */

/* The known answers that are tested: a number, a name. */
#define SECURITY_SELF_TEST_LIST(X)                \
    X(SECURITY_SELF_TEST_SHA1, 1, "sha-1")        \
    X(SECURITY_SELF_TEST_SHA256, 2, "sha-256")    \
    X(SECURITY_SELF_TEST_SHA512, 3, "sha-512")    \
    X(SECURITY_SELF_TEST_HMAC, 4, "hmac-sha-256") \
    X(SECURITY_SELF_TEST_CBC, 5, "aes-128-cbc")   \
    X(SECURITY_SELF_TEST_GCM, 6, "aes-256-gcm")   \
    X(SECURITY_SELF_TEST_ECDSA, 7, "ecdsa-p-256")
#define SECURITY_SELF_TEST_ROW(name, value, text) name = value,
enum security_self_test { SECURITY_SELF_TEST_LIST(SECURITY_SELF_TEST_ROW) };
#undef SECURITY_SELF_TEST_ROW

/* The record of SECURITY_RESULT_REQUEST, in host order: what the self-tests came to when they were last run.
 */
typedef struct security_self_test_results {
    uint32_t outcome;     /* the response's value: 0 where all is well */
    uint32_t failed;      /* the response's word: tests that failed */
    uint32_t run_at;      /* when that was, in seconds since 1970 */
    uint32_t num_entries; /* 0 until the tests have been run */
    struct {
        uint32_t test;   /* enum security_self_test */
        uint32_t passed; /* 1 or 0 */
    } entries[20];
} security_self_test_results;
static_assert(sizeof(security_self_test_results) == 176, "layout");
static_assert(offsetof(security_self_test_results, num_entries) == 12, "layout");

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct tlvu_field_itr tlvu_field_itr; /* quillplatform/tlv.h */

/* -------------------------------------------------------------------------------------------- sending */

extern const char* const security_notification_msg[];

/* Announces a user change on a handle of the message transport, and writes a line about it to the system log
 * (LOG_AUTHPRIV | LOG_NOTICE) once it is sent. `user` (cut at 128 bytes), role_set and text (cut at 40 bytes)
 * may be null and are then zero. `type` is one of enum security_user_change; any other is sent as it is and
 * logged without a text. Answers 0; 1 when memory ran out; or what the TLV utilities or the message transport
 * answered. */
uint32_t security_userchange_notify(uint32_t mts_handle, uint32_t type, const char* user, uint32_t number,
                                    const security_role_set* role_set, const char* text);

/* A zeroed notification, the caller's to free(3). Answers 0, or 1 with null when memory ran out. */
uint32_t security_init_security_notif(security_notification** structure);

/* Sends a message to everybody on this system. Answers what mts_send() did, but for its -1 what
 * mts_errno_get() says. */
uint32_t security_mts_notify(uint32_t mts_handle, uint32_t opcode, const void* payload, uint16_t length);

/* ------------------------------------------------------------------------------------------ receiving */

/* Reads a user change out of a message of the transport into `structure`, a security_notification, which is
 * written only with 0. Answers that, -1 for a null argument, or what the TLV utilities answered. */
int32_t security_mts_usernotif_parser(const void* message, void* structure);

/* ----------------------------------------------------------------- role sets inside of a TLV message */

/* Converters of the field that holds the role names. `structure` is the security_role_set around it. */

/* The field's size in bytes, 4160. */
uint32_t security_roles_get_tlv_data_sz(void);

/* A copy of the names in a new block of tlvu_malloc(), and 4160 as its length and 1 as count. Answers 0; 1
 * when memory ran out; 73 for a null argument other than `ignored`. */
uint32_t security_roles_struct_to_tlv(const void* structure, const void* ignored, void** data,
                                      uint32_t* length, uint32_t* count);

/* Copies 4160 bytes of data over the names. Answers 0, or 73 for a null argument. */
uint32_t security_roles_tlv_to_struct(void* structure, const void* data);

/* ------------------------------------------------------------------------- field tables and their use */

/* A tlvu_table_header, five tlvu_field_descriptor and the terminator, of a security_notification; and a
 * header, two and the terminator, of a security_role_set. */
extern const unsigned char tlvu_security_notification_tbl[];
extern const unsigned char tlvu_role_set_tbl[];

/* The TLV utilities under these tables; their arguments, results and errors are those of tlvu_table_*,
 * tlvu_get_field and tlvu_field_itr_*. What fails of the first three pairs is reported with
 * tlvu_error_print(). */
uint32_t tlvu_security_notification_to_tlv(const void* structure, void** tlv, uint32_t* tlv_length);
uint32_t tlvu_role_set_to_tlv(const void* structure, void** tlv, uint32_t* tlv_length);

uint32_t tlvu_security_notification_to_struct(const void* tlv, uint32_t tlv_length, void** structure,
                                              uint32_t mode);
uint32_t tlvu_role_set_to_struct(const void* tlv, uint32_t tlv_length, void** structure, uint32_t mode);

/* The structure's size, or -1. */
int32_t tlvu_security_notification_get_struct_sz(const void* tlv, uint32_t tlv_length);
int32_t tlvu_role_set_get_struct_sz(const void* tlv, uint32_t tlv_length);

uint32_t tlvu_security_notification_get_tlv_sz(const void* structure);
uint32_t tlvu_role_set_get_tlv_sz(const void* structure);

uint32_t tlvu_security_notification_get_field(const void* tlv, uint32_t tlv_length, uint32_t field_id,
                                              void** value, uint32_t* value_length);
uint32_t tlvu_role_set_get_field(const void* tlv, uint32_t tlv_length, uint32_t field_id, void** value,
                                 uint32_t* value_length);

uint32_t tlvu_security_notification_field_itr_init(const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr);
uint32_t tlvu_role_set_field_itr_init(const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr);

uint32_t tlvu_security_notification_field_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                                   uint32_t* value_length);
uint32_t tlvu_role_set_field_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                      uint32_t* value_length);

/* ----------------------------------------------------------------------------- self-tests at start-up */

/* Messages of the self-test, in host order. The request is one byte `value`, a zero byte, 16 bits `count` and
 * as many 32-bit entries; to quillsecurityd's service 1 says to run the tests whose numbers
 * (enum security_self_test) are the entries. The response is one byte `value`, three bytes that nobody reads,
 * a 32-bit word and a TLV array; from that service 0 where all is well, else 1, the number of tests that
 * failed, and one element a test: its number, and a byte, 1 for passed. */

/* Asks service point 55 of this system. `count` is at least 1. Answers 0, or SECURITY_ERR_MISSING_ARGUMENT
 * when count is 0, entries is null, or the message could not be sent. */
uint32_t securityd_bootup_fips_post_test_send_request(uint32_t mts_handle, uint8_t value, uint16_t count,
                                                      const uint32_t* entries);

/* Takes a response apart. `array` receives a copy of its TLV array, the caller's to free(3), and `size` the
 * low 16 bits of its size in bytes; `word` must not be null. Answers 0, or SECURITY_ERR_MISSING_ARGUMENT,
 * with nothing written, for any other null argument, another opcode, a response without payload or shorter
 * than what it says it holds, and when memory ran out. */
uint32_t securityd_bootup_fips_post_test_parse_response(const void* message, uint8_t* value, uint32_t* word,
                                                        uint16_t* size, void** array);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
