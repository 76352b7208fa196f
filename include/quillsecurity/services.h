/* Management services and security features that can be switched on and off or have a value. */
#ifndef QUILLSECURITY_SERVICES_H
#define QUILLSECURITY_SERVICES_H

#include <stdint.h>

/* Codes of the services. Any other 32-bit code can have a value too, but has no name. */
enum security_service {
    SECURITY_SERVICE_SSH = 1,
    SECURITY_SERVICE_TELNET = 2,
    SECURITY_SERVICE_RSA_KEY = 8,   /* size of the RSA host key in bits */
    SECURITY_SERVICE_DSA_KEY = 9,   /* size of the DSA host key in bits, 0 for none */
    SECURITY_SERVICE_RSA1_KEY = 10, /* size of the host key of SSH protocol 1 in bits, 0 for none */
    SECURITY_SERVICE_FIPS = 12,
    SECURITY_SERVICE_PASSWORD_STRENGTH = 13, /* password strength check; has no name */
    SECURITY_SERVICE_HTTP_SERVER = 14,
    SECURITY_SERVICE_SCP = 16, /* reads as 0 if it was never set */
    SECURITY_SERVICE_BASH_SHELL = 20,
    SECURITY_SERVICE_PLOTY = 21,           /* the HTTP API */
    SECURITY_SERVICE_PLOTY_HTTP_PORT = 22, /* TCP port */
    SECURITY_SERVICE_PLOTY_HTTPS_PORT = 23 /* TCP port */
};

/* The defaults that security_conf_default_check() stores: code and value, in order. Telnet, which depends on
 * the card, follows after these. */
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
