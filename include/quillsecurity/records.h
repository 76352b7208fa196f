/* The records of requests between clients and the daemon, their request types and codes.
 *
 * A record is sent as raw bytes. Words that security_conf_cmi_byteorder_convert() lists for the request type
 * are sent big-endian, all others in host order. Sizes and offsets are the same on every target and are
 * asserted below each record. Texts are NUL-terminated within their field.
 */
#ifndef QUILLSECURITY_RECORDS_H
#define QUILLSECURITY_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#include "quillsecurity/layout.h"

/* The operation of a request. Most handlers do nothing and return 0 for any other code. */
enum security_operation {
    GET_REQ = 1,     /* read the record whose key is given */
    GETNEXT_REQ = 2, /* read the first record after the given key; start with an empty name or 0 */
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
    SECURITY_RESULT_REQUEST = 2215,          /* security_self_test_results: results of the self-tests */
    SECURITY_ROLES_REQUEST = 5155,           /* role list of a user, to read it */
    SECURITY_USER_LOOKUP_REQUEST = 5156,     /* user look-up */
    SECURITY_SSHKEY_REQUEST = 5157,          /* ssh_key_cmd_rec */
    SECURITY_SSHKEY_TRANSFER_REQUEST = 5158, /* ssh_key_cmd_rec, import and export; never byte-swapped */
    SECURITY_PRIV_INFO_REQUEST = 5159,       /* security_priv_info */
    SECURITY_LOCALE_ASSIGN_REQUEST = 5161,   /* locale list of a user */
    SECURITY_NGINX_PORT_REQUEST = 283649,    /* nginx_port_rec, one-way */
    SECURITY_NGINX_CERT_REQUEST = 283650,    /* nginx_cert_rec, one-way */

    /* From 0x51000000 on: requests that only the programs of this system use. */
    SECURITY_ORPHANS_REQUEST = 0x51000001 /* security_orphans: delete records of users without an account */
};

/* How a secret is encoded. */
enum security_encryption {
    SECURITY_ENCRYPTION_CLEAR = 0,    /* clear text */
    SECURITY_ENCRYPTION_HASH = 1,     /* salted hash string; one-way */
    SECURITY_ENCRYPTION_CIPHER = 7,   /* reversible cipher */
    SECURITY_ENCRYPTION_TO_HASH = 100 /* clear text, to be hashed by the handler of privilege levels */
};

/* The password of a user and how it is encoded. */
typedef struct security_user {
    char user_name[128];
    uint32_t user_type;       /* 1 selects the second user table, any other value the first */
    uint32_t encryption_type; /* enum security_encryption */
    char password[128];
} security_user;
QUILL_ASSERT_SIZE(security_user, 264);
QUILL_ASSERT_OFFSET(security_user, user_type, 128);
QUILL_ASSERT_OFFSET(security_user, encryption_type, 132);
QUILL_ASSERT_OFFSET(security_user, password, 136);

/* One service and its value. */
typedef struct security_enable_info {
    uint32_t code; /* enum security_service */
    uint32_t value;
} security_enable_info;
QUILL_ASSERT_SIZE(security_enable_info, 8);
QUILL_ASSERT_OFFSET(security_enable_info, value, 4);

/* The secret of a privilege level. */
typedef struct security_priv_info {
    int32_t priv_lvl;        /* the key; never stored in the value */
    int32_t encryption_type; /* enum security_encryption */
    char secret[1024];
    int32_t secret_len;    /* bytes of the secret, without a terminator */
    uint32_t shadow_style; /* nonzero: secret holds a salted hash string */
    char salt[64];         /* empty if the salt is part of the hash string */
    int32_t salt_len;
} security_priv_info;
QUILL_ASSERT_SIZE(security_priv_info, 1108);
QUILL_ASSERT_OFFSET(security_priv_info, encryption_type, 4);
QUILL_ASSERT_OFFSET(security_priv_info, secret, 8);
QUILL_ASSERT_OFFSET(security_priv_info, secret_len, 1032);
QUILL_ASSERT_OFFSET(security_priv_info, shadow_style, 1036);
QUILL_ASSERT_OFFSET(security_priv_info, salt, 1040);
QUILL_ASSERT_OFFSET(security_priv_info, salt_len, 1104);

/* The roles of a user. Names past the count are ignored. */
typedef struct security_user_roles {
    char user_name[128];
    int32_t num_roles; /* 0 to 64 */
    char roles[64][65];
} security_user_roles;
QUILL_ASSERT_SIZE(security_user_roles, 4292);
QUILL_ASSERT_OFFSET(security_user_roles, num_roles, 128);
QUILL_ASSERT_OFFSET(security_user_roles, roles, 132);

/* The locales of a user. */
typedef struct security_user_locales {
    char user_name[128];
    int32_t num_locales; /* 0 to 64 */
    char locales[64][65];
} security_user_locales;
QUILL_ASSERT_SIZE(security_user_locales, 4292);
QUILL_ASSERT_OFFSET(security_user_locales, num_locales, 128);
QUILL_ASSERT_OFFSET(security_user_locales, locales, 132);

/* An account to create, change or delete. The reply of a failed request has the text of the failure. */
typedef struct security_user_manage {
    char unused[8];
    char user_name[128];
    char password[128]; /* as in shadow(5); empty: unchanged, or none for a new account */
    char unused_too[4];
    char role[64];      /* the first of the roles, cut */
    int32_t num_roles;  /* 0 to 64: roles of a new account */
    char roles[64][65]; /* names past the count are ignored */
    char unused_more[4228];
    char expiry[40];     /* "%d-%d-%d" of year, month and day, or empty */
    int32_t return_code; /* reply: exit status of the program that failed */
    char output[4096];   /* reply */
    char error[4096];    /* reply: error output of the program that failed, beginning with its name */
} security_user_manage;
QUILL_ASSERT_SIZE(security_user_manage, 16960);
QUILL_ASSERT_OFFSET(security_user_manage, user_name, 8);
QUILL_ASSERT_OFFSET(security_user_manage, password, 136);
QUILL_ASSERT_OFFSET(security_user_manage, role, 268);
QUILL_ASSERT_OFFSET(security_user_manage, num_roles, 332);
QUILL_ASSERT_OFFSET(security_user_manage, roles, 336);
QUILL_ASSERT_OFFSET(security_user_manage, expiry, 8724);
QUILL_ASSERT_OFFSET(security_user_manage, return_code, 8764);
QUILL_ASSERT_OFFSET(security_user_manage, error, 12864);

/* A new password for an account, as clear text. The reply of a failed request has the text of the failure. */
typedef struct security_passwd {
    char user_name[128];
    char password[128];
    char unused[4];
    char output[4096]; /* reply */
    char error[4096];  /* reply: beginning with "passwd:" */
} security_passwd;
QUILL_ASSERT_SIZE(security_passwd, 8452);
QUILL_ASSERT_OFFSET(security_passwd, output, 260);
QUILL_ASSERT_OFFSET(security_passwd, error, 4356);

/* Request to delete, with DEL_REQ, the records of users who have no account in the daemon's context. */
typedef struct security_orphans {
    uint32_t dropped; /* reply: number of records deleted, in host order */
} security_orphans;
QUILL_ASSERT_SIZE(security_orphans, 4);

/* The SSH key of a user as one line of OpenSSH text. */
typedef struct ssh_key_rec {
    char user_name[128];
    char key_text[2200];
} ssh_key_rec;
QUILL_ASSERT_SIZE(ssh_key_rec, 2328);
QUILL_ASSERT_OFFSET(ssh_key_rec, key_text, 128);

/* The SSH key of a user as the text of a key file in another format. */
typedef struct ssh_key_new_rec {
    char user_name[128];
    char key_text[8192];
    uint8_t key_format; /* enum security_sshkey_format */
} ssh_key_new_rec;
QUILL_ASSERT_SIZE(ssh_key_new_rec, 8321);
QUILL_ASSERT_OFFSET(ssh_key_new_rec, key_text, 128);
QUILL_ASSERT_OFFSET(ssh_key_new_rec, key_format, 8320);

/* A command about a user's own key pair, see cmi_user_sshkey_config(). */
typedef struct ssh_key_cmd_rec {
    uint32_t kind;  /* enum security_key_pair_command */
    uint32_t value; /* size of the key in bits */
    char user_name[128];
    char first_text[128];  /* import and export: passphrase */
    char second_text[256]; /* import and export: path of the file */
    char rest[5200];
} ssh_key_cmd_rec;
QUILL_ASSERT_SIZE(ssh_key_cmd_rec, 5720);
QUILL_ASSERT_OFFSET(ssh_key_cmd_rec, value, 4);
QUILL_ASSERT_OFFSET(ssh_key_cmd_rec, user_name, 8);
QUILL_ASSERT_OFFSET(ssh_key_cmd_rec, first_text, 136);
QUILL_ASSERT_OFFSET(ssh_key_cmd_rec, second_text, 264);
QUILL_ASSERT_OFFSET(ssh_key_cmd_rec, rest, 520);

/* Items of an nginx_cert_rec, as the daemon of this system uses them. */
enum security_web_item { SECURITY_WEB_CERTIFICATE = 0, SECURITY_WEB_KEY = 1 };

/* The certificate or the key of the web server, as PEM text. */
typedef struct nginx_cert_rec {
    uint32_t item; /* 0 selects one of the two, anything else the other: enum security_web_item */
    char text[2100];
    uint32_t enable; /* 1: use the stored certificate and key; item and text are then ignored */
} nginx_cert_rec;
QUILL_ASSERT_SIZE(nginx_cert_rec, 2108);
QUILL_ASSERT_OFFSET(nginx_cert_rec, text, 4);
QUILL_ASSERT_OFFSET(nginx_cert_rec, enable, 2104);

/* The ports of the web server and its switch, all big-endian: see cmi_security_nginx_configure(). */
typedef struct nginx_port_rec {
    uint32_t word[3];
} nginx_port_rec;
QUILL_ASSERT_SIZE(nginx_port_rec, 12);

#endif
