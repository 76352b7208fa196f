#include "daemon/routes.h"

#include <openssl/crypto.h>

#include <cstring>

#include "common/coded_secret.h"
#include "daemon/accounts.h"
#include "daemon/activation.h"
#include "daemon/key_pairs.h"
#include "daemon/self_test.h"
#include "daemon/user_lists.h"
#include "daemon/web_server.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// The usual adapter: the handler takes the record as it is.
template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t by(uint32_t store, uint32_t operation, void* record) {
    return handler(store, operation, static_cast<Record*>(record));
}

// Nobody's key would never be found again: walks start behind the empty name.
template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t users_key(uint32_t store, uint32_t operation, void* record) {
    if (operation == SET_REQ && *static_cast<Record*>(record)->user_name == '\0') return SECURITY_ERR_NO_USER;
    return by<Record, handler>(store, operation, record);
}

uint32_t enable_info(uint32_t store, uint32_t operation, void* record) {
    auto& info = *static_cast<security_enable_info*>(record);
    switch (info.code) {
    case SECURITY_SERVICE_PLOTY:
        return web_switch(store, operation, info);
    case SECURITY_SERVICE_PLOTY_HTTP_PORT:
    case SECURITY_SERVICE_PLOTY_HTTPS_PORT:
        return web_port(store, operation, info);
    }
    return enable_info_config(store, operation, static_cast<int32_t>(info.code), &info.value);
}

uint32_t banner(uint32_t store, uint32_t operation, void* record) {
    const uint32_t status = security_banner_info_config(store, operation, static_cast<char*>(record));
    if (operation == SET_REQ && status == SECURITY_OK) activate_later(Setting::kBanner);
    return status;
}

// The same hash as the handler would make, into an empty field.
bool hash(security_priv_info& info) {
    CodedSecret hashed;
    const uint32_t status = security_conf_encrypt(info.secret, SECURITY_ENCRYPTION_HASH, nullptr, 0,
                                                  hashed.block(), hashed.length());
    if (status != SECURITY_OK || !hashed.fits(info.secret)) return false;
    OPENSSL_cleanse(info.secret, sizeof info.secret);
    OPENSSL_cleanse(info.salt, sizeof info.salt);
    hashed.copy_to(info.secret);
    info.encryption_type = SECURITY_ENCRYPTION_HASH;
    info.secret_len = static_cast<int32_t>(hashed.size());
    info.shadow_style = 1;
    info.salt_len = 0;
    return true;
}

// Behind a short password may stand the rest of a longer one, which the handler would store as it is.
uint32_t user_record(uint32_t store, uint32_t operation, void* record) {
    auto& user = *static_cast<security_user*>(record);
    if (operation == SET_REQ) {
        const size_t length = strlen(user.password);
        OPENSSL_cleanse(user.password + length, sizeof user.password - length);
    }
    return security_user_config(store, operation, &user);
}

// The handler keeps what stands in the field behind the hash, which would store the tail of a longer secret
// in clear and never verify it. So it is never given one.
uint32_t priv_info(uint32_t store, uint32_t operation, void* record) {
    auto& info = *static_cast<security_priv_info*>(record);
    const bool clear = operation == SET_REQ && info.encryption_type == SECURITY_ENCRYPTION_TO_HASH;
    if (clear && !hash(info)) return SECURITY_ERR_CRYPT;
    return security_priv_info_config(store, operation, &info);
}

#define TEXT(record, field) \
    { offsetof(record, field), sizeof(record::field) }
#define COUNT(record, field, largest) \
    { offsetof(record, field), largest }

constexpr TextField kUserTexts[] = {TEXT(security_user, user_name), TEXT(security_user, password)};
constexpr TextField kPrivInfoTexts[] = {TEXT(security_priv_info, secret), TEXT(security_priv_info, salt)};
constexpr CountField kPrivInfoCounts[] = {COUNT(security_priv_info, secret_len, 1023),
                                          COUNT(security_priv_info, salt_len, 63)};
constexpr TextField kKeyLineTexts[] = {TEXT(ssh_key_rec, user_name), TEXT(ssh_key_rec, key_text)};
constexpr TextField kKeyFileTexts[] = {TEXT(ssh_key_new_rec, user_name), TEXT(ssh_key_new_rec, key_text)};
constexpr TextField kKeyTransferTexts[] = {
    TEXT(ssh_key_cmd_rec, user_name), TEXT(ssh_key_cmd_rec, first_text), TEXT(ssh_key_cmd_rec, second_text)};
// The other commands carry no text but the name; what clients leave in those fields is no concern.
constexpr TextField kKeyCommandTexts[] = {TEXT(ssh_key_cmd_rec, user_name)};

constexpr TextField kAccountTexts[] = {TEXT(security_user_manage, user_name),
                                       TEXT(security_user_manage, password), TEXT(security_user_manage, role),
                                       TEXT(security_user_manage, expiry)};
constexpr CountField kAccountCounts[] = {COUNT(security_user_manage, num_roles, 64)};
constexpr TextField kPasswordTexts[] = {TEXT(security_passwd, user_name), TEXT(security_passwd, password)};
constexpr TextField kRoleTexts[] = {TEXT(security_user_roles, user_name)};
constexpr CountField kRoleCounts[] = {COUNT(security_user_roles, num_roles, 64)};
constexpr TextField kLocaleTexts[] = {TEXT(security_user_locales, user_name)};
constexpr CountField kLocaleCounts[] = {COUNT(security_user_locales, num_locales, 64)};

constexpr TextField kCertTexts[] = {TEXT(nginx_cert_rec, text)};

#undef TEXT
#undef COUNT

// Every change is a line of the log that names the user, in the first text.
constexpr Route audited(const char* what, Route route) {
    route.audited = what;
    return route;
}

// The record goes back with a failure too.
constexpr Route explained(Route route) {
    route.explains_failures = true;
    return route;
}

constexpr Route kRoutes[] = {
    {SECURITY_ENABLE_INFO_REQUEST, sizeof(security_enable_info), enable_info, Access::kEveryone,
     Access::kAdministrators},
    audited("user record", explained({SECURITY_USER_REQUEST, sizeof(security_user), user_record,
                                      Access::kAdministrators, Access::kAdministrators, kUserTexts})),
    {SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), priv_info, Access::kAdministrators,
     Access::kAdministrators, kPrivInfoTexts, kPrivInfoCounts},
    audited("account",
            explained({SECURITY_USER_MANAGE_REQUEST, sizeof(security_user_manage), manage_account,
                       Access::kAdministrators, Access::kAdministrators, kAccountTexts, kAccountCounts})),
    audited("password", explained({SECURITY_PASSWD_REQUEST, sizeof(security_passwd), change_password,
                                   Access::kAdministrators, Access::kAdministrators, kPasswordTexts})),
    audited("roles", {SECURITY_ROLE_ASSIGN_REQUEST, sizeof(security_user_roles), role_list, Access::kEveryone,
                      Access::kAdministrators, kRoleTexts, kRoleCounts}),
    audited("roles", {SECURITY_ROLES_REQUEST, sizeof(security_user_roles), role_list, Access::kEveryone,
                      Access::kAdministrators, kRoleTexts, kRoleCounts}),
    audited("locales", {SECURITY_LOCALE_ASSIGN_REQUEST, sizeof(security_user_locales), locale_list,
                        Access::kEveryone, Access::kAdministrators, kLocaleTexts, kLocaleCounts}),
    // A public key is no secret. Its two formats are told apart by their length; a key file is what changes
    // one, a look-up only asks.
    audited("SSH key", {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_rec),
                        users_key<ssh_key_rec, security_user_ssh_key_config>, Access::kAdministrators,
                        Access::kAdministrators, kKeyLineTexts}),
    audited("SSH key", {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_new_rec),
                        users_key<ssh_key_new_rec, security_user_ssh_key_new_config>, Access::kAdministrators,
                        Access::kAdministrators, kKeyFileTexts}),
    {SECURITY_USER_LOOKUP_REQUEST, sizeof(ssh_key_rec), by<ssh_key_rec, security_user_ssh_key_config>,
     Access::kEveryone, Access::kNobody, kKeyLineTexts},
    {SECURITY_USER_LOOKUP_REQUEST, sizeof(ssh_key_new_rec),
     by<ssh_key_new_rec, security_user_ssh_key_new_config>, Access::kEveryone, Access::kNobody,
     kKeyFileTexts},
    audited("key pair", {SECURITY_SSHKEY_REQUEST, sizeof(ssh_key_cmd_rec), command_key_pair,
                         Access::kAdministrators, Access::kAdministrators, kKeyCommandTexts}),
    audited("key pair", {SECURITY_SSHKEY_TRANSFER_REQUEST, sizeof(ssh_key_cmd_rec), transfer_key_pair,
                         Access::kAdministrators, Access::kAdministrators, kKeyTransferTexts}),
    {SECURITY_BANNER_REQUEST, sizeof(char), banner, Access::kEveryone, Access::kAdministrators},
    {SECURITY_NGINX_PORT_REQUEST, sizeof(nginx_port_rec), web_ports, Access::kEveryone,
     Access::kAdministrators},
    {SECURITY_NGINX_CERT_REQUEST, sizeof(nginx_cert_rec), web_pair, Access::kAdministrators,
     Access::kAdministrators, kCertTexts},
    {SECURITY_RESULT_REQUEST, sizeof(security_self_test_results), self_test_results, Access::kEveryone,
     Access::kAdministrators},
};

}  // namespace

std::span<const Route> routes() { return kRoutes; }

}  // namespace quill
