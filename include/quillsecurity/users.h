/* User management: accounts with their passwords, expiry dates, keys, roles and locales, as configuration
 * clients see them. Included by quillsecurity.h.
 *
 * The functions check what can be checked on the client, then ask the daemon. They run in the virtual device
 * context of the calling process and take plain user names. Undeliverable requests answer
 * SECURITY_ERR_TRANSPORT | errno where a function names that status, else the channel's negative result
 * (0xffffffff) with errno set. Where a status 0 came with a reply too short to hold what is wanted of it, the
 * answer is SECURITY_ERR_TRANSPORT | EPROTO and nothing is copied.
 *
 * Texts of the records below that have no terminator are cut at the last byte of their field.
 */
#ifndef QUILLSECURITY_USERS_H
#define QUILLSECURITY_USERS_H

#include "quillsecurity/records.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum security_password_format {
    SECURITY_PASSWORD_CLEAR = 1, /* any value but 2: judged, then set with a request of its own */
    SECURITY_PASSWORD_STORED = 2 /* a hash for the shadow file, which is stored as it is */
};

enum security_account_kind {
    SECURITY_ACCOUNT_ORDINARY = 2,
    SECURITY_ACCOUNT_EXPIRED = 3 /* a placeholder: nobody can log in, and it expires a day later */
};

#pragma pack(push, 1)

/* An account. */
typedef struct common_user_record {
    char name[128];
    char password[128];      /* empty: not to be set */
    uint8_t password_format; /* enum security_password_format */
    int32_t expiry_year;     /* year, month and day all positive: a date; all 0: it never expires; else the
                                expiry is not given and stays as it is */
    int32_t expiry_month;
    int32_t expiry_day;
    int32_t expiry_hour; /* local time of that day, for the check that it is not past */
    int32_t expiry_minute;
    int32_t expiry_second;
    char unused[18];
    char ssh_key[256];    /* SET: "DEVICE:PATH" of a public key file, or empty; GET: "configured" or empty */
    uint8_t account_kind; /* enum security_account_kind */
    char role[65];        /* for a new account; or empty */
} common_user_record;

/* A role or a locale of a user. */
typedef struct common_user_member {
    char user_name[128];
    char name[65];
} common_user_member;

/* One request of any kind. */
typedef struct common_user_frame {
    int32_t kind; /* enum security_frame_kind */
    char text[256];
    union {
        common_user_record user;
        common_user_member member;
        uint32_t count;
        char bytes[621];
    } body;
} common_user_frame;

#pragma pack(pop)

static_assert(sizeof(common_user_record) == 621, "layout");
static_assert(offsetof(common_user_record, ssh_key) == 299, "layout");
static_assert(sizeof(common_user_member) == 193, "layout");
static_assert(sizeof(common_user_frame) == 881, "layout");

enum security_frame_kind {
    SECURITY_FRAME_USER = 1,
    SECURITY_FRAME_ROLE = 2,
    SECURITY_FRAME_USER_COUNT = 3,
    SECURITY_FRAME_LOCALE = 5
};

/* What the last failed request said: a text for a person, and the exit status of what failed. Kept until the
 * next failure. The text ends in its 256 bytes, except that one of 256 bytes or more which came with a failed
 * create or modify fills them without a terminator; readers take at most 256 characters. */
extern char cmi_common_user_err_str[256];
extern int32_t cmi_common_user_return_code;

/* Reads, creates, changes or deletes an account.
 *   GET_REQ, GETNEXT_REQ  fill the record from the shadow file, GETNEXT_REQ with the stored name that follows
 *            in name order (SECURITY_ERR_END_OF_TABLE). The expiry is the last second of its day, UTC, or
 *            all 0; days past the end of a 32-bit time_t read as that end there. ssh_key says whether the
 *            daemon holds a key. SECURITY_ERR_NO_USER
 *   SET_REQ  creates the account or changes it. A change asks the daemon for the account only with a date or
 *            a stored password, and hands on the role only then. SECURITY_ERR_WEAK_PASSWORD,
 *            SECURITY_ERR_EXPIRY_DATE (not in the calendar, past, or not from 1902 to 2037),
 *            SECURITY_ERR_TOO_MANY_USERS (exactly 256 exist), SECURITY_ERR_NO_USER (an internal name),
 *            SECURITY_ERR_FILE_OPEN (a key file that is not on bootflash: or volatile:)
 *   DEL_REQ  deletes it: SECURITY_ERR_NOT_FOUND. A request that could not be delivered answers 0 all the
 *            same, so whoever needs to know looks the user up afterwards.
 * An empty name is SECURITY_ERR_NO_USER, a failed look-up 1. Any other operation checks the name and the
 * date's form and answers 0. Steps that went well before a failing one stay done. */
uint32_t cmi_common_user_config(uint32_t handle, uint32_t operation, common_user_record* record);

/* Sets a password. Where a reply came and the pointers are not null, its texts are copied to `text` and
 * `error`, 4096 bytes each. SECURITY_ERR_PASSWD_UNDELIVERED, or the daemon's status. */
uint32_t security_change_passwd(uint32_t handle, const char* name, const char* password, char* text,
                                char* error);

/* 1 when the daemon holds an SSH key of the user, 0 when not or when it cannot be asked. */
uint32_t cmi_security_common_user_ssh_key_configured(uint32_t handle, const char* name);

/* Roles of a user.
 *   GET_REQ      whether he holds the role: 0, or SECURITY_ERR_ROLE_NOT_HELD
 *   GETNEXT_REQ  the (user, role) that follows, users and roles in name order, from empty names on;
 *                SECURITY_ERR_NO_MORE_ROLES
 *   SET_REQ      gives it to him; one he holds already is 0. SECURITY_ERR_NOT_FOUND (no account),
 *                SECURITY_ERR_TOO_MANY_ROLES (64)
 *   DEL_REQ      takes it from him
 * SECURITY_ERR_UNKNOWN_ROLE for a SET or DEL of a name that is no role; SECURITY_ERR_TRANSPORT | errno. A SET
 * reads the list and writes it back: of two at once one may be lost. */
uint32_t cmi_common_user_role_config(uint32_t handle, uint32_t operation, common_user_member* record);

/* The same for locales, without GETNEXT_REQ: SECURITY_ERR_LOCALE_NOT_HELD, SECURITY_ERR_TOO_MANY_LOCALES,
 * SECURITY_ERR_UNKNOWN_LOCALE. The account is looked up by the plain name in every context. */
uint32_t cmi_common_user_locale_config(uint32_t handle, uint32_t operation, common_user_member* record);

/* Any of these by the kind of the frame, whose text is emptied; SECURITY_FRAME_USER_COUNT counts the users
 * of the caller's context. The requests are made on behalf of `cmi_username`, which must last as long as the
 * process, and `session_id`. An unknown kind does nothing and answers 0. */
uint32_t cmi_security_common_user_config(uint32_t handle, uint32_t operation, common_user_frame* frame,
                                         const char* cmi_username, uint32_t session_id);

/* The common cases of that. Names are cut at 127 characters, roles and locales at 64, passwords at 127; null
 * texts count as empty. `expiry` is "year-month-day" (SECURITY_ERR_DATE_FORMAT) or empty for none. An account
 * of kind SECURITY_ACCOUNT_EXPIRED ignores expiry and password. create_expired_user is create, after which
 * the process accepts expiry dates that are past. */
uint32_t cmi_security_common_user_create(uint32_t handle, const char* user, const char* expiry,
                                         const char* role, const char* password, uint8_t password_format,
                                         uint8_t account_kind, const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_create_expired_user(uint32_t handle, const char* user, const char* expiry,
                                                 const char* role, const char* password,
                                                 uint8_t password_format, uint8_t account_kind,
                                                 const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_delete(uint32_t handle, const char* user, const char* cmi_username,
                                         uint32_t session_id);
uint32_t cmi_security_common_user_role_assign(uint32_t handle, const char* user, const char* role,
                                              const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_role_unassign(uint32_t handle, const char* user, const char* role,
                                                const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_locale_assign(uint32_t handle, const char* user, const char* locale,
                                                const char* cmi_username, uint32_t session_id);
uint32_t cmi_security_common_user_locale_unassign(uint32_t handle, const char* user, const char* locale,
                                                  const char* cmi_username, uint32_t session_id);

/* Fetches the results of the self-test into `result`, a security_self_test_results. */
uint32_t cmi_post_lc_result(uint32_t handle, void* result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
