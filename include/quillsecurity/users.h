/* User management for configuration clients: accounts with their passwords, expiry dates, keys, roles and
 * locales. Included by quillsecurity.h, whose conventions hold here.
 *
 * The functions check what the client can check, then send requests to the daemon. User names are plain names
 * in the virtual device context of the calling process. For a request that could not be delivered, a function
 * returns SECURITY_ERR_TRANSPORT | errno if it says so, else the channel's negative result (0xffffffff) with
 * errno set. If the daemon returned 0 with a reply that is too short, functions that read the reply return
 * SECURITY_ERR_TRANSPORT | EPROTO and copy nothing.
 *
 * Texts in the records below that have no terminator are cut at the last byte of their field.
 */
#ifndef QUILLSECURITY_USERS_H
#define QUILLSECURITY_USERS_H

#include "quillsecurity/records.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum security_password_format {
    SECURITY_PASSWORD_CLEAR = 1, /* any value but 2: clear text; checked, then set with a separate request */
    SECURITY_PASSWORD_STORED = 2 /* a hash for the shadow file, stored unchanged */
};

enum security_account_kind {
    SECURITY_ACCOUNT_ORDINARY = 2,
    SECURITY_ACCOUNT_EXPIRED = 3 /* a placeholder without a login, which expires a day later */
};

#pragma pack(push, 1)

/* An account. */
typedef struct common_user_record {
    char name[128];
    char password[128];      /* empty: unchanged */
    uint8_t password_format; /* enum security_password_format */
    int32_t expiry_year;     /* If year, month and day are all positive, the expiry date is set. If all are
                              * 0, it is cleared, unless a stored password is set by the same
                              * request. In any other case it is unchanged. */
    int32_t expiry_month;
    int32_t expiry_day;
    int32_t expiry_hour; /* local time; used only to check that the date is not past */
    int32_t expiry_minute;
    int32_t expiry_second;
    char unused[18];
    char ssh_key[256];    /* SET: "DEVICE:PATH" of a public key file, or empty; GET: "configured" or empty */
    uint8_t account_kind; /* enum security_account_kind */
    char role[65];        /* role of a new account, or empty */
} common_user_record;

/* A role or a locale of a user. */
typedef struct common_user_member {
    char user_name[128];
    char name[65];
} common_user_member;

/* A request of any kind. */
typedef struct common_user_frame {
    int32_t kind;   /* enum security_frame_kind */
    char text[256]; /* emptied by cmi_security_common_user_config() */
    union {
        common_user_record user;
        common_user_member member;
        uint32_t count;
        char bytes[621];
    } body;
} common_user_frame;

#pragma pack(pop)

QUILL_ASSERT_SIZE(common_user_record, 621);
QUILL_ASSERT_OFFSET(common_user_record, ssh_key, 299);
QUILL_ASSERT_SIZE(common_user_member, 193);
QUILL_ASSERT_SIZE(common_user_frame, 881);

enum security_frame_kind {
    SECURITY_FRAME_USER = 1,
    SECURITY_FRAME_ROLE = 2,
    SECURITY_FRAME_USER_COUNT = 3,
    SECURITY_FRAME_LOCALE = 5
};

/* Error text and exit status of the last request that failed, kept until the next failure. The text of a
 * failed creation or change fills all 256 bytes, without a terminator, if it is that long: read at most 256
 * characters. Other texts are terminated. */
extern char cmi_common_user_err_str[256];
extern int32_t cmi_common_user_return_code;

/* Reads, creates, changes or deletes an account.
 *   GET_REQ      reads the record from the shadow file; SECURITY_ERR_NO_USER. The expiry is the last second
 *                of its day, UTC, or all 0; on 32-bit targets a later day reads as the end of time_t. ssh_key
 *                tells whether the daemon has a key.
 *   GETNEXT_REQ  the same for the stored name that follows in name order; SECURITY_ERR_END_OF_TABLE
 *   SET_REQ      creates the account or changes it. A change sends the account, with its role, only if it has
 *                a date or a stored password. If it has a stored password and an expiry of all 0, only the
 *                password is set, because the daemon cannot tell "clear" from "not given": to set a stored
 *                password and clear the date, make two requests. SECURITY_ERR_WEAK_PASSWORD,
 *                SECURITY_ERR_EXPIRY_DATE (not in the calendar, past, or not from 1902 to 2037),
 *                SECURITY_ERR_TOO_MANY_USERS (exactly 256 exist), SECURITY_ERR_NO_USER (an internal name),
 *                SECURITY_ERR_FILE_OPEN (a key file that is not on bootflash: or volatile:)
 *   DEL_REQ      deletes it; SECURITY_ERR_NOT_FOUND. Also returns 0 if the request could not be delivered, so
 *                a caller that must know looks the user up afterwards.
 * Any other operation checks the name and returns 0. Returns SECURITY_ERR_NO_USER for an empty name and 1 if
 * the look-up of the account failed. If a step fails, the steps before it are not undone. */
uint32_t cmi_common_user_config(uint32_t connection, uint32_t operation, common_user_record* record);

/* Sets a password, given as clear text. If there is a reply, copies its output to `text` and its
 * error text to `error`, buffers of 4096 bytes each that may be null. Returns the daemon's status,
 * or SECURITY_ERR_PASSWD_UNDELIVERED. */
uint32_t security_change_passwd(uint32_t connection, const char* name, const char* password, char* text,
                                char* error);

/* Returns 1 if the daemon has an SSH key of the user, else 0; 0 too if the request fails. */
uint32_t cmi_security_common_user_ssh_key_configured(uint32_t connection, const char* name);

/* Checks, walks, adds and removes roles of a user.
 *   GET_REQ      returns 0 if the user has the role, else SECURITY_ERR_ROLE_NOT_HELD
 *   GETNEXT_REQ  replaces user and role by those that follow, in name order; start with empty names.
 *                SECURITY_ERR_NO_MORE_ROLES
 *   SET_REQ      adds the role; 0 too if the user has it. SECURITY_ERR_NOT_FOUND (no account),
 *                SECURITY_ERR_TOO_MANY_ROLES (64)
 *   DEL_REQ      removes the role
 * SET_REQ, DEL_REQ: SECURITY_ERR_UNKNOWN_ROLE if there is no role of this name. SECURITY_ERR_TRANSPORT |
 * errno for a request that could not be delivered. SET_REQ reads the list and writes it back. If another
 * client changed it in between, nothing is stored and the status is SECURITY_ERR_CHANGED; if the connection
 * was lost in between, SECURITY_ERR_TRANSPORT | ESTALE; after both, call the function again. The same holds
 * for callers who send these requests themselves: the daemon compares the list to be stored with what this
 * connection read last by SECURITY_ROLE_ASSIGN_REQUEST or SECURITY_LOCALE_ASSIGN_REQUEST, and stores a list
 * that the connection never read without comparing. A connection that read more than 1024 lists must read a
 * list before storing it. Threads of a process share a connection; this function lets them take turns, other
 * callers must do so themselves. */
uint32_t cmi_common_user_role_config(uint32_t connection, uint32_t operation, common_user_member* record);

/* The same for locales, without GETNEXT_REQ: SECURITY_ERR_LOCALE_NOT_HELD, SECURITY_ERR_TOO_MANY_LOCALES,
 * SECURITY_ERR_UNKNOWN_LOCALE. In every context the account is looked up by its plain name. */
uint32_t cmi_common_user_locale_config(uint32_t connection, uint32_t operation, common_user_member* record);

/* Calls the function for the kind of the frame, after emptying the frame's text; SECURITY_FRAME_USER_COUNT
 * counts the users of the caller's context. Requests are sent on behalf of `cmi_username`, which is not
 * copied and must stay valid for the life of the process, and `session_id`. Does nothing and returns 0 for an
 * unknown kind. */
uint32_t cmi_security_common_user_config(uint32_t connection, uint32_t operation, common_user_frame* frame,
                                         const char* cmi_username, uint32_t session_id);

/* Build a frame and pass it to cmi_security_common_user_config(). User names and passwords are cut to 127
 * characters, roles and locales to 64; a null text counts as empty. `expiry` is "year-month-day", or empty
 * for none; SECURITY_ERR_DATE_FORMAT. For an account of kind SECURITY_ACCOUNT_EXPIRED, expiry and password
 * are ignored. cmi_security_common_create_expired_user() lets the process set expiry dates in the past from
 * then on, and creates the user. */
uint32_t cmi_security_common_user_create(uint32_t connection, const char* user, const char* expiry,
                                         const char* role, const char* password, uint8_t password_format,
                                         uint8_t account_kind, const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_create_expired_user(uint32_t connection, const char* user, const char* expiry,
                                                 const char* role, const char* password,
                                                 uint8_t password_format, uint8_t account_kind,
                                                 const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_delete(uint32_t connection, const char* user, const char* cmi_username,
                                         uint32_t session_id);
uint32_t cmi_security_common_user_role_assign(uint32_t connection, const char* user, const char* role,
                                              const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_role_unassign(uint32_t connection, const char* user, const char* role,
                                                const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_locale_assign(uint32_t connection, const char* user, const char* locale,
                                                const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_locale_unassign(uint32_t connection, const char* user, const char* locale,
                                                  const char* cmi_username, uint32_t session_id);

/* Reads the results of the self-tests into `result`, a security_self_test_results. */
uint32_t cmi_post_lc_result(uint32_t connection, void* result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
