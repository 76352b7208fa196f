/* Management services and security features that can be switched or given a value. */
#ifndef QUILLSECURITY_SERVICES_H
#define QUILLSECURITY_SERVICES_H

#include <stdint.h>

/* Item codes. Any other 32-bit code can be stored and read as well; it has no name then. */
enum security_service {
    SECURITY_SERVICE_SSH = 1,
    SECURITY_SERVICE_TELNET = 2,
    SECURITY_SERVICE_RSA_KEY = 8,   /* size of the host's RSA key in bits */
    SECURITY_SERVICE_DSA_KEY = 9,   /* size of the host's DSA key in bits, 0 for none */
    SECURITY_SERVICE_RSA1_KEY = 10, /* size of the host's protocol 1 key in bits, 0 for none */
    SECURITY_SERVICE_FIPS = 12,
    SECURITY_SERVICE_PASSWORD_STRENGTH = 13, /* password strength check; in no name table */
    SECURITY_SERVICE_HTTP_SERVER = 14,
    SECURITY_SERVICE_SCP = 16, /* reads as 0 when it was never set */
    SECURITY_SERVICE_BASH_SHELL = 20,
    SECURITY_SERVICE_PLOTY = 21,           /* the HTTP API */
    SECURITY_SERVICE_PLOTY_HTTP_PORT = 22, /* TCP port */
    SECURITY_SERVICE_PLOTY_HTTPS_PORT = 23 /* TCP port */
};

/* What security_conf_default_check() writes where nothing is stored yet: code and value, in the order in
 * which they are examined. Telnet comes last and depends on the card: see there. */
#define SECURITY_DEFAULT_LIST(X)             \
    X(SECURITY_SERVICE_SSH, 1)               \
    X(SECURITY_SERVICE_RSA_KEY, 1024)        \
    X(SECURITY_SERVICE_DSA_KEY, 0)           \
    X(SECURITY_SERVICE_RSA1_KEY, 0)          \
    X(SECURITY_SERVICE_PASSWORD_STRENGTH, 1) \
    X(SECURITY_SERVICE_HTTP_SERVER, 0)       \
    X(SECURITY_SERVICE_BASH_SHELL, 0)        \
    X(SECURITY_SERVICE_PLOTY, 0)

/* A row of the name table. */
typedef struct enable_info_str_entry {
    int32_t code;
    const char* name;
} enable_info_str_entry;

#endif
