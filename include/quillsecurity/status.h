/* Statuses: the results of the library's functions.
 *
 * A status is an unsigned 32-bit word, 0 for success. The upper half is the origin:
 *   0x4048xxxx  the persistent store; returned unchanged unless a function says otherwise
 *   0x404axxxx  the library and the daemon
 *   0x804axxxx  the request could not be delivered: SECURITY_ERR_TRANSPORT with the low 12 bits of errno
 * Some client functions return the channel's own negative result (0xffffffff), with the reason in errno, for
 * a request that could not be delivered. Each function says which of the two it returns.
 *
 * The constants below and the texts of syserr2str() are generated from this list of name, value and text.
 */
#ifndef QUILLSECURITY_STATUS_H
#define QUILLSECURITY_STATUS_H

#include <stdint.h>

#define SECURITY_STATUS_LIST(X)                                                                             \
    X(SECURITY_OK, 0x00000000, "success")                                                                   \
    X(SECURITY_PSS_NO_KEY, 0x40480003, "the store has no record under this key")                            \
    X(SECURITY_ERR_NO_VALUE, 0x404a0007, "no value is stored for this service or port")                     \
    X(SECURITY_ERR_NO_CIPHER, 0x404a0008, "unknown encryption type or digest")                              \
    X(SECURITY_ERR_CRYPT, 0x404a0009, "encoding, decoding or verifying a secret failed")                    \
    X(SECURITY_ERR_PASSWD_UNDELIVERED, 0x404a000b, "the password change could not be delivered")            \
    X(SECURITY_ERR_UNKNOWN_ROLE, 0x404a000d, "there is no role of this name")                               \
    X(SECURITY_ERR_ROLE_NOT_HELD, 0x404a000e, "the user does not hold this role")                           \
    X(SECURITY_ERR_NOT_FOUND, 0x404a0014, "the record does not exist")                                      \
    X(SECURITY_ERR_END_OF_TABLE, 0x404a001c, "no further record of this kind")                              \
    X(SECURITY_ERR_TOO_MANY_ROLES, 0x404a0024, "the user already holds 64 roles")                           \
    X(SECURITY_ERR_SSHKEY_CONVERT, 0x404a0027, "converting the SSH key failed")                             \
    X(SECURITY_ERR_SSHKEY_FORMAT, 0x404a0028, "not a public key, or of a format that cannot be converted")  \
    X(SECURITY_ERR_FILE_OPEN, 0x404a0029, "the file cannot be opened, or its location is unknown")          \
    X(SECURITY_ERR_SSHKEY_TYPE, 0x404a002a, "the type of the SSH key could not be determined")              \
    X(SECURITY_ERR_FILE_READ, 0x404a002b, "the file cannot be read")                                        \
    X(SECURITY_ERR_URI_TYPE, 0x404a002c, "unknown type of file location")                                   \
    X(SECURITY_ERR_NO_MORE_ROLES, 0x404a002d, "the user holds no further role")                             \
    X(SECURITY_ERR_WEAK_PASSWORD, 0x404a002f, "the password is too weak")                                   \
    X(SECURITY_ERR_EXPIRY_DATE, 0x404a0030, "the expiry date is past, not in the calendar or out of range") \
    X(SECURITY_ERR_NO_USER, 0x404a0031, "no such user, a reserved name or an empty one")                    \
    X(SECURITY_ERR_TOO_MANY_USERS, 0x404a0033, "256 local users exist already")                             \
    X(SECURITY_ERR_DATE_FORMAT, 0x404a0034, "the expiry date is not of the form year-month-day")            \
    X(SECURITY_ERR_MISSING_ARGUMENT, 0x404a003e, "an argument of the self-test request is missing")         \
    X(SECURITY_ERR_NO_PRIV_LVL, 0x404a0045, "the privilege level has no secret")                            \
    X(SECURITY_ERR_NO_MORE_PRIV_LVLS, 0x404a0046, "no further privilege level has a secret")                \
    X(SECURITY_ERR_CERT_TOO_BIG, 0x404a0048, "the certificate is too long")                                 \
    X(SECURITY_ERR_TOO_MANY_LOCALES, 0x404a004a, "the user already holds 64 locales")                       \
    X(SECURITY_ERR_UNKNOWN_LOCALE, 0x404a004b, "there is no locale of this name")                           \
    X(SECURITY_ERR_LOCALE_NOT_HELD, 0x404a004c, "the user does not hold this locale")                       \
    /* Statuses of requests that the daemon refuses before a handler is called. */                          \
    X(SECURITY_ERR_REQUEST_FRAME, 0x404a0101, "the request is not one of this system")                      \
    X(SECURITY_ERR_REQUEST_TYPE, 0x404a0102, "the daemon does not serve requests of this type")             \
    X(SECURITY_ERR_REQUEST_SIZE, 0x404a0103, "the record's length is not that of its request type")         \
    X(SECURITY_ERR_REQUEST_TEXT, 0x404a0104, "a text of the request has no terminator in its field")        \
    X(SECURITY_ERR_REQUEST_COUNT, 0x404a0105, "a count of the request is out of range")                     \
    X(SECURITY_ERR_NOT_PERMITTED, 0x404a0106, "the caller is not permitted to do this")                     \
    X(SECURITY_ERR_BUSY, 0x404a0107, "the daemon has too many clients")                                     \
    X(SECURITY_ERR_CHANGED, 0x404a0108, "the list was changed by another since it was read")                \
    X(SECURITY_ERR_CONTEXT, 0x404a0109, "the daemon serves another virtual device context")                 \
    /* Statuses of accounts. A request that fails changes nothing. */                                       \
    X(SECURITY_ERR_USER_NAME, 0x404a0110, "this name is none of an ordinary user")                          \
    X(SECURITY_ERR_PASSWORD_TEXT, 0x404a0111, "the password holds characters that cannot be stored")        \
    X(SECURITY_ERR_ACCOUNT_TOOL, 0x404a0112, "the system's program for accounts failed")                    \
    X(SECURITY_ERR_ACCOUNT_REPAIR, 0x404a0113, "an interrupted change of an account is not repaired")       \
    X(SECURITY_ERR_OTHER_HOME, 0x404a0114, "the account has another home than the daemon gives")            \
    X(SECURITY_ERR_ACCOUNTS_IN_USE, 0x404a0115, "another program is changing the account files")            \
    X(SECURITY_ERR_NOT_SUPPORTED, 0x404a0120, "this is not supported")                                      \
    X(SECURITY_ERR_KEY_PAIR, 0x404a0121, "making, reading or writing the key pair failed")                  \
    X(SECURITY_ERR_KEY_PAIR_EXISTS, 0x404a0122, "the user has a key pair of this type already")             \
    /* Statuses of the web server, which then keeps its old settings. */                                    \
    X(SECURITY_ERR_WEB_CERTIFICATE, 0x404a0130, "the text is not a certificate in PEM form")                \
    X(SECURITY_ERR_WEB_KEY, 0x404a0131, "the text is not a key in PEM form without a passphrase")           \
    X(SECURITY_ERR_WEB_MISMATCH, 0x404a0132, "the key does not belong to the certificate")                  \
    X(SECURITY_ERR_WEB_EXPIRED, 0x404a0133, "the certificate has expired")                                  \
    X(SECURITY_ERR_WEB_INCOMPLETE, 0x404a0134, "the certificate or its key has not been sent yet")          \
    X(SECURITY_ERR_WEB_SETTINGS, 0x404a0135,                                                                \
      "a port is out of range or the other's, or the switch not 0 or 1")                                    \
    X(SECURITY_ERR_WEB_WEAK, 0x404a0136, "the certificate's key or signature is too weak to be served")

#ifdef __cplusplus
#define SECURITY_STATUS_ROW(name, value, text) static const uint32_t name = value;
SECURITY_STATUS_LIST(SECURITY_STATUS_ROW)
#else
#define SECURITY_STATUS_ROW(name, value, text) name = value,
enum security_status { SECURITY_STATUS_LIST(SECURITY_STATUS_ROW) };
#endif
#undef SECURITY_STATUS_ROW

/* Combined with errno: `SECURITY_ERR_TRANSPORT | (errno & 0xfff)`. A macro, since it does not fit an int. */
#define SECURITY_ERR_TRANSPORT 0x804a0000u

#endif
