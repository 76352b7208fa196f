/* The records that cross between a client and the daemon, and the codes that go with them.
 *
 * Every record is sent as raw bytes. Of its words only those that security_conf_cmi_byteorder_convert()
 * lists for the request type travel big-endian; all others cross in host order. Sizes and offsets are the
 * same on every target and are pinned below each record. Text fields are NUL-terminated inside their field.
 */
#ifndef QUILLSECURITY_RECORDS_H
#define QUILLSECURITY_RECORDS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* What a request asks for. Handlers say what they do with any other code; most touch nothing and answer 0. */
enum security_operation {
    GET_REQ = 1,     /* read the record whose key is given */
    GETNEXT_REQ = 2, /* read the first record whose key follows the one given; an empty name or 0 starts */
    SET_REQ = 3,     /* create or replace the record */
    DEL_REQ = 4      /* delete the record */
};

enum security_request_type {
    SECURITY_PASSWD_REQUEST = 155,           /* password change */
    SECURITY_USER_MANAGE_REQUEST = 157,      /* create, modify or delete an account */
    SECURITY_ROLE_ASSIGN_REQUEST = 158,      /* role list of a user, to change it */
    SECURITY_ENABLE_INFO_REQUEST = 161,      /* security_enable_info */
    SECURITY_USER_REQUEST = 165,             /* security_user */
    SECURITY_SSHKEY_FILE_REQUEST = 170,      /* ssh_key_rec or ssh_key_new_rec */
    SECURITY_BANNER_REQUEST = 171,           /* the banner's delimiter, one byte */
    SECURITY_RESULT_REQUEST = 2215,          /* post of a self-test result */
    SECURITY_ROLES_REQUEST = 5155,           /* role list of a user, to read it */
    SECURITY_USER_LOOKUP_REQUEST = 5156,     /* user look-up */
    SECURITY_SSHKEY_REQUEST = 5157,          /* ssh_key_cmd_rec */
    SECURITY_SSHKEY_TRANSFER_REQUEST = 5158, /* ssh_key_cmd_rec, import and export; never converted */
    SECURITY_PRIV_INFO_REQUEST = 5159,       /* security_priv_info */
    SECURITY_LOCALE_ASSIGN_REQUEST = 5161,   /* locale list of a user */
    SECURITY_NGINX_PORT_REQUEST = 283649,    /* nginx_port_rec, one-way */
    SECURITY_NGINX_CERT_REQUEST = 283650     /* nginx_cert_rec, one-way */
};

/* How a secret is encoded. */
enum security_encryption {
    SECURITY_ENCRYPTION_CLEAR = 0,    /* as it is */
    SECURITY_ENCRYPTION_HASH = 1,     /* salted hash string; one-way */
    SECURITY_ENCRYPTION_CIPHER = 7,   /* reversible cipher */
    SECURITY_ENCRYPTION_TO_HASH = 100 /* clear text that the handler of a privilege level hashes */
};

/* The password of a user and how it is encoded. */
typedef struct security_user {
    char user_name[128];
    uint32_t user_type;       /* 1 selects the second user table, any other value the first */
    uint32_t encryption_type; /* enum security_encryption */
    char password[128];
} security_user;
static_assert(sizeof(security_user) == 264, "layout");
static_assert(offsetof(security_user, user_type) == 128, "layout");
static_assert(offsetof(security_user, password) == 136, "layout");

/* One service and its value. */
typedef struct security_enable_info {
    uint32_t code; /* enum security_service */
    uint32_t value;
} security_enable_info;
static_assert(sizeof(security_enable_info) == 8, "layout");

/* The secret of a privilege level. */
typedef struct security_priv_info {
    int32_t priv_lvl;        /* the key; never stored in the value */
    int32_t encryption_type; /* enum security_encryption */
    char secret[1024];
    int32_t secret_len;    /* meaningful bytes of secret */
    uint32_t shadow_style; /* nonzero: secret holds a salted hash string */
    char salt[64];         /* empty where the salt is part of the hash string */
    int32_t salt_len;
} security_priv_info;
static_assert(sizeof(security_priv_info) == 1108, "layout");
static_assert(offsetof(security_priv_info, secret) == 8, "layout");
static_assert(offsetof(security_priv_info, secret_len) == 1032, "layout");
static_assert(offsetof(security_priv_info, salt_len) == 1104, "layout");

/* The roles of a user; entries past the count carry no meaning. */
typedef struct security_user_roles {
    char user_name[128];
    int32_t num_roles; /* 0 to 64 */
    char roles[64][65];
} security_user_roles;
static_assert(sizeof(security_user_roles) == 4292, "layout");

/* The locales of a user. */
typedef struct security_user_locales {
    char user_name[128];
    int32_t num_locales; /* 0 to 64 */
    char locales[64][65];
} security_user_locales;
static_assert(sizeof(security_user_locales) == 4292, "layout");

/* The SSH key of a user as one line of OpenSSH text. */
typedef struct ssh_key_rec {
    char user_name[128];
    char key_text[2200];
} ssh_key_rec;
static_assert(sizeof(ssh_key_rec) == 2328, "layout");

/* The SSH key of a user as it was read from a file of another format. */
typedef struct ssh_key_new_rec {
    char user_name[128];
    char key_text[8192];
    uint8_t key_format;
} ssh_key_new_rec;
static_assert(sizeof(ssh_key_new_rec) == 8321, "layout");

/* A command about a user's own key pair. */
typedef struct ssh_key_cmd_rec {
    uint32_t kind;
    uint32_t value;
    char user_name[128];
    char first_text[128];
    char second_text[256];
    char rest[5200];
} ssh_key_cmd_rec;
static_assert(sizeof(ssh_key_cmd_rec) == 5720, "layout");
static_assert(offsetof(ssh_key_cmd_rec, second_text) == 264, "layout");

/* The web server's certificate or its key, as PEM text. */
typedef struct nginx_cert_rec {
    uint32_t item; /* 0 selects one of the two, anything else the other */
    char text[2100];
    uint32_t enable;
} nginx_cert_rec;
static_assert(sizeof(nginx_cert_rec) == 2108, "layout");

/* The web server's ports. */
typedef struct nginx_port_rec {
    uint32_t word[3];
} nginx_port_rec;
static_assert(sizeof(nginx_port_rec) == 12, "layout");

#endif
