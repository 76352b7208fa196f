/* Notifications of user changes, sent to all listeners on the message transport, and the messages of the
 * cryptographic self-tests.
 *
 * A user change is sent as a TLV message. The platform's TLV utilities (quillplatform/tlv.h) convert a
 * structure to a message and back, according to a field table of this library.
 */
#ifndef QUILLSECURITY_NOTIFY_H
#define QUILLSECURITY_NOTIFY_H

#include <stddef.h>
#include <stdint.h>

#include "quillsecurity/layout.h"

/* Opcodes on the message transport. */
enum security_mts_opcode {
    SECURITY_MTS_USER_CHANGE = 173, /* a security_notification as TLV message */
    SECURITY_MTS_SELF_TEST = 2213   /* request and response of a self-test */
};

/* Types of user changes: name, value, text. The text is security_notification_msg[type - 1]. */
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
    uint32_t count; /* names in use; names past it are ignored */
    char roles[64][65];
} security_role_set;
QUILL_ASSERT_SIZE(security_role_set, 4164);

/* Words are in host order. A name or text that fills its field has no terminator. */
typedef struct security_notification {
    uint32_t type; /* enum security_user_change */
    char user_name[128];
    uint32_t number; /* chosen by the sender; quillsecurityd numbers its notifications from 1 */
    security_role_set role_set;
    char text[40]; /* chosen by the sender */
} security_notification;
QUILL_ASSERT_SIZE(security_notification, 4340);
QUILL_ASSERT_OFFSET(security_notification, number, 132);
QUILL_ASSERT_OFFSET(security_notification, text, 4300);

/* A field table is a header, a descriptor for each field, and a terminator: a descriptor whose field_id,
 * width, offset, zero1, largest_length and minus_one are -1 and whose other words are 0. Each word is as wide
 * as a pointer. */
typedef struct tlvu_table_header {
    uintptr_t size; /* of the structure, in bytes */
    const char* type_name;
    uintptr_t zero0, zero1;
} tlvu_table_header;

enum tlvu_kind {
    TLVU_KIND_BLOCK = 1,    /* a fixed number of bytes, in elements of `width` bytes */
    TLVU_KIND_STRING = 3,   /* a text that ends at its terminator or at the end of its field */
    TLVU_KIND_CONVERTED = 8 /* a field with its own converters */
};

/* A field. Its converters are addresses of functions like security_roles_struct_to_tlv(),
 * security_roles_tlv_to_struct() and security_roles_get_tlv_data_sz(). */
typedef struct tlvu_field_descriptor {
    intptr_t field_id, width, offset;                      /* width: bytes per element */
    uintptr_t kind;                                        /* enum tlvu_kind */
    uintptr_t struct_to_tlv, tlv_to_struct, tlv_data_size; /* 0 unless TLVU_KIND_CONVERTED */
    uintptr_t zero0, zero1;
    intptr_t largest_length; /* of the whole field, in bytes */
    intptr_t minus_one;
    uintptr_t zero2;
} tlvu_field_descriptor;
QUILL_ASSERT_SIZE(tlvu_field_descriptor, 12 * sizeof(void*));

/* ------------------------------------------------------------------------------------ self-test results */

/* The self-tests: name of the constant, number, name. */
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

/* The results of the last run of the self-tests: record of SECURITY_RESULT_REQUEST, in host order. */
typedef struct security_self_test_results {
    uint32_t outcome;     /* value of the response: 0 if all tests passed */
    uint32_t failed;      /* word of the response: number of tests that failed */
    uint32_t run_at;      /* time of the run in seconds since 1970 */
    uint32_t num_entries; /* entries in use: 0 until the tests have been run */
    struct {
        uint32_t test;   /* enum security_self_test */
        uint32_t passed; /* 1 or 0 */
    } entries[20];
} security_self_test_results;
QUILL_ASSERT_SIZE(security_self_test_results, 176);
QUILL_ASSERT_OFFSET(security_self_test_results, num_entries, 12);

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct tlvu_field_itr; /* quillplatform/tlv.h */

/* -------------------------------------------------------------------------------------------- sending */

extern const char* const security_notification_msg[];

/* Sends a notification of a user change on a handle of the message transport, and logs it to the system log
 * (LOG_AUTHPRIV | LOG_NOTICE) once it is sent. `user` (cut to 128 bytes), role_set and text (cut to 40 bytes)
 * may be null; their fields are then zero. `type` is one of enum security_user_change; any other is sent
 * unchanged and logged without its text. Returns 0 on success, 1 if memory ran out, or the result of the TLV
 * utilities or of security_mts_notify(). */
uint32_t security_userchange_notify(uint32_t mts_handle, uint32_t type, const char* user, uint32_t number,
                                    const security_role_set* role_set, const char* text);

/* Allocates a zeroed notification, which the caller releases with free(3). Returns 0, or 1 with *structure
 * null if memory ran out. */
uint32_t security_init_security_notif(security_notification** structure);

/* Sends a message of `length` bytes to all listeners on this system. Returns the result of mts_send(), and
 * that of mts_errno_get() in place of -1. */
uint32_t security_mts_notify(uint32_t mts_handle, uint32_t opcode, const void* payload, uint16_t length);

/* ------------------------------------------------------------------------------------------ receiving */

/* Reads a user change from a message of the transport into `structure`, a security_notification. Returns 0 on
 * success; -1 for a null argument, or the result of the TLV utilities, with the structure unchanged. */
int32_t security_mts_usernotif_parser(const void* message, void* structure);

/* ------------------------------------------------------------------------ role sets in a TLV message */

/* Converters of the field with the role names. `structure` is the whole security_role_set. */

/* Returns the size of the field in bytes, 4160. */
uint32_t security_roles_get_tlv_data_sz(void);

/* Stores a copy of the names in *data, a block from tlvu_malloc() that the caller releases with free(3), its
 * length, 4160, in *length and 1 in *count. Returns 0 on success, 1 if memory ran out, 73 for a null argument
 * other than `ignored`. */
uint32_t security_roles_struct_to_tlv(const void* structure, const void* ignored, void** data,
                                      uint32_t* length, uint32_t* count);

/* Copies 4160 bytes of `data` to the names. Returns 0, or 73 for a null argument. */
uint32_t security_roles_tlv_to_struct(void* structure, const void* data);

/* --------------------------------------------------------------- field tables and functions for them */

/* The field tables of security_notification (a tlvu_table_header, five tlvu_field_descriptor and the
 * terminator) and of security_role_set (a header, two descriptors and the terminator). */
extern const unsigned char tlvu_security_notification_tbl[];
extern const unsigned char tlvu_role_set_tbl[];

/* The TLV utilities with these tables. Arguments, results, ownership and errors are those of
 * tlvu_table_*(), tlvu_get_field() and tlvu_field_itr_*() (quillplatform/tlv.h). The first three pairs
 * report failures with tlvu_error_print(). */
uint32_t tlvu_security_notification_to_tlv(const void* structure, void** tlv, uint32_t* tlv_length);
uint32_t tlvu_role_set_to_tlv(const void* structure, void** tlv, uint32_t* tlv_length);

uint32_t tlvu_security_notification_to_struct(const void* tlv, uint32_t tlv_length, void** structure,
                                              uint32_t mode);
uint32_t tlvu_role_set_to_struct(const void* tlv, uint32_t tlv_length, void** structure, uint32_t mode);

/* Return the size of the structure in bytes, or -1 on failure. */
int32_t tlvu_security_notification_get_struct_sz(const void* tlv, uint32_t tlv_length);
int32_t tlvu_role_set_get_struct_sz(const void* tlv, uint32_t tlv_length);

uint32_t tlvu_security_notification_get_tlv_sz(const void* structure);
uint32_t tlvu_role_set_get_tlv_sz(const void* structure);

uint32_t tlvu_security_notification_get_field(const void* tlv, uint32_t tlv_length, uint32_t field_id,
                                              void** value, uint32_t* value_length);
uint32_t tlvu_role_set_get_field(const void* tlv, uint32_t tlv_length, uint32_t field_id, void** value,
                                 uint32_t* value_length);

uint32_t tlvu_security_notification_field_itr_init(const void* tlv, uint32_t tlv_length,
                                                   struct tlvu_field_itr* itr);
uint32_t tlvu_role_set_field_itr_init(const void* tlv, uint32_t tlv_length, struct tlvu_field_itr* itr);

uint32_t tlvu_security_notification_field_get_next(struct tlvu_field_itr* itr, uint32_t* field_id,
                                                   void** value, uint32_t* value_length);
uint32_t tlvu_role_set_field_get_next(struct tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                      uint32_t* value_length);

/* ----------------------------------------------------------------------------- self-tests at start-up */

/* Messages of the self-tests. Numbers are in host order.
 *   request   one byte `value`, a zero byte, 16 bits `count`, and `count` 32-bit entries. For the service of
 *             quillsecurityd the value is 1, and the entries are the tests to run (enum security_self_test).
 *   response  one byte `value`, three unused bytes, a 32-bit word and a TLV array. From that service the
 *             value is 0 if all tests passed, else 1, the word is the number of tests that failed, and the
 *             array has an element for each test: its number, and one byte, 1 for passed. */

/* Sends a request to service point 55 of this system. Returns 0, or SECURITY_ERR_MISSING_ARGUMENT if count is
 * 0, entries is null, or the message could not be sent. */
uint32_t securityd_bootup_fips_post_test_send_request(uint32_t mts_handle, uint8_t value, uint16_t count,
                                                      const uint32_t* entries);

/* Parses a response. Stores a copy of its TLV array in *array, which the caller releases with free(3), and
 * the low 16 bits of the array's size in bytes in *size. `word` must not be null. Returns 0 on success.
 * Returns SECURITY_ERR_MISSING_ARGUMENT, with nothing stored, for any other null argument, another opcode, a
 * response without a payload or shorter than the sizes it states, and if memory ran out. */
uint32_t securityd_bootup_fips_post_test_parse_response(const void* message, uint8_t* value, uint32_t* word,
                                                        uint16_t* size, void** array);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
