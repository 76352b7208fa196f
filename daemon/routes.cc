#include "daemon/routes.h"

#include <openssl/crypto.h>

#include <cstring>

#include "base/coded_secret.h"
#include "base/context_name.h"
#include "base/text_field.h"
#include "daemon/account_records.h"
#include "daemon/accounts.h"
#include "daemon/activation.h"
#include "daemon/key_pairs.h"
#include "daemon/self_test.h"
#include "daemon/user_lists.h"
#include "daemon/web_server.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// Calls the handler of a user's key with the plain name if the request has the qualified one, as a walk over
// the accounts returns it. The record is returned with the name of the request.
template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t users_key(uint32_t store, uint32_t operation, void* record) {
    auto& key = *static_cast<Record*>(record);
    // Refuse an empty name: GETNEXT starts after it and could never list it.
    if (operation == SET_REQ && *key.user_name == '\0') return SECURITY_ERR_NO_USER;
    // Refuse a user of another context; in context 1 no plain name has its suffix.
    if (operation == SET_REQ && context_of(key.user_name) != kDefaultContext &&
        context_of(key.user_name) != sysmgrcmn_vdc_id_get())
        return SECURITY_ERR_NO_USER;
    if (operation == GETNEXT_REQ) return handler(store, operation, &key);
    char asked[sizeof key.user_name];
    copy_field(asked, key.user_name);
    make_plain(key.user_name);
    const uint32_t status = handler(store, operation, &key);
    copy_field(key.user_name, asked);
    return status;
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

// Replaces a clear secret by the hash that the handler would make of it, in an empty field.
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

// Wipes the field behind a password: there may be the rest of a longer one, which the handler would store.
uint32_t user_record(uint32_t store, uint32_t operation, void* record) {
    auto& user = *static_cast<security_user*>(record);
    if (operation == SET_REQ) {
        const size_t length = strlen(user.password);
        OPENSSL_cleanse(user.password + length, sizeof user.password - length);
    }
    return security_user_config(store, operation, &user);
}

// The handler leaves the rest of a clear secret behind the hash that it writes over it, and would store that.
// So it never gets a clear secret.
uint32_t priv_info(uint32_t store, uint32_t operation, void* record) {
    auto& info = *static_cast<security_priv_info*>(record);
    const bool clear = operation == SET_REQ && info.encryption_type == SECURITY_ENCRYPTION_TO_HASH;
    if (clear && !hash(info)) return SECURITY_ERR_CRYPT;
    return security_priv_info_config(store, operation, &info);
}

#define KEY(record, field) \
    { Field::Kind::kText, Field::Use::kKey, offsetof(record, field), sizeof(record::field) }
#define TEXT(record, field) \
    { Field::Kind::kText, Field::Use::kValue, offsetof(record, field), sizeof(record::field) }
#define COUNT(record, field, largest) \
    { Field::Kind::kCount, Field::Use::kValue, offsetof(record, field), largest }

constexpr Field kUser[] = {KEY(security_user, user_name), TEXT(security_user, password)};
// A length may be that of the whole field; the text must end within it nevertheless.
constexpr Field kPrivInfo[] = {TEXT(security_priv_info, secret), TEXT(security_priv_info, salt),
                               COUNT(security_priv_info, secret_len, sizeof security_priv_info::secret),
                               COUNT(security_priv_info, salt_len, sizeof security_priv_info::salt)};
constexpr Field kAccount[] = {KEY(security_user_manage, user_name), TEXT(security_user_manage, password),
                              TEXT(security_user_manage, role), TEXT(security_user_manage, expiry),
                              COUNT(security_user_manage, num_roles, 64)};
constexpr Field kPassword[] = {KEY(security_passwd, user_name), TEXT(security_passwd, password)};
// The names are checked by the handler, which knows how many of them it uses.
constexpr Field kRoles[] = {KEY(security_user_roles, user_name), COUNT(security_user_roles, num_roles, 64)};
constexpr Field kLocales[] = {KEY(security_user_locales, user_name),
                              COUNT(security_user_locales, num_locales, 64)};
constexpr Field kKeyLine[] = {KEY(ssh_key_rec, user_name), TEXT(ssh_key_rec, key_text)};
constexpr Field kKeyFile[] = {KEY(ssh_key_new_rec, user_name), TEXT(ssh_key_new_rec, key_text)};
constexpr Field kKeyTransfer[] = {KEY(ssh_key_cmd_rec, user_name), TEXT(ssh_key_cmd_rec, first_text),
                                  TEXT(ssh_key_cmd_rec, second_text)};
// The other commands use no text but the name; clients leave anything in the other fields.
constexpr Field kKeyCommand[] = {KEY(ssh_key_cmd_rec, user_name)};
constexpr Field kCertificate[] = {TEXT(nginx_cert_rec, text)};

#undef KEY
#undef TEXT
#undef COUNT

constexpr Rights kPublic{Access::kEveryone, Access::kAdministrators};
constexpr Rights kPrivate{Access::kAdministrators, Access::kAdministrators};
constexpr Rights kLookUp{Access::kEveryone, Access::kNobody};

constexpr auto kKeyLineOfUser = users_key<ssh_key_rec, security_user_ssh_key_config>;
constexpr auto kKeyFileOfUser = users_key<ssh_key_new_rec, security_user_ssh_key_new_config>;

template <class Record>
constexpr Route row(uint32_t type, decltype(Route::handle) handle, Rights rights,
                    std::span<const Field> fields, uint32_t flags) {
    return {type, sizeof(Record), handle, rights, fields, flags};
}

constexpr std::span<const Field> kNoFields;
constexpr uint32_t kNone = 0;

// Public keys of a user have two formats, which are told apart by the record's size. They are changed by the
// request with a key file; the look-up only reads.
constexpr Route kRoutes[] = {
    row<security_enable_info>(SECURITY_ENABLE_INFO_REQUEST, enable_info, kPublic, kNoFields, kNone),
    row<security_user>(SECURITY_USER_REQUEST, user_record, kPrivate, kUser, kExplains),
    row<security_priv_info>(SECURITY_PRIV_INFO_REQUEST, priv_info, kPrivate, kPrivInfo, kNone),
    row<security_user_manage>(SECURITY_USER_MANAGE_REQUEST, manage_account, kPrivate, kAccount, kExplains),
    row<security_passwd>(SECURITY_PASSWD_REQUEST, change_password, kPrivate, kPassword, kExplains),
    row<security_user_roles>(SECURITY_ROLE_ASSIGN_REQUEST, role_list, kPublic, kRoles, kRepairsFirst),
    row<security_user_roles>(SECURITY_ROLES_REQUEST, role_list, kPublic, kRoles, kRepairsFirst),
    row<security_user_locales>(SECURITY_LOCALE_ASSIGN_REQUEST, locale_list, kPublic, kLocales, kRepairsFirst),
    row<ssh_key_rec>(SECURITY_SSHKEY_FILE_REQUEST, kKeyLineOfUser, kPrivate, kKeyLine, kNone),
    row<ssh_key_new_rec>(SECURITY_SSHKEY_FILE_REQUEST, kKeyFileOfUser, kPrivate, kKeyFile, kNone),
    row<ssh_key_rec>(SECURITY_USER_LOOKUP_REQUEST, kKeyLineOfUser, kLookUp, kKeyLine, kNone),
    row<ssh_key_new_rec>(SECURITY_USER_LOOKUP_REQUEST, kKeyFileOfUser, kLookUp, kKeyFile, kNone),
    row<ssh_key_cmd_rec>(SECURITY_SSHKEY_REQUEST, command_key_pair, kPrivate, kKeyCommand, kNone),
    row<ssh_key_cmd_rec>(SECURITY_SSHKEY_TRANSFER_REQUEST, transfer_key_pair, kPrivate, kKeyTransfer, kNone),
    row<char>(SECURITY_BANNER_REQUEST, banner, kPublic, kNoFields, kNone),
    row<nginx_port_rec>(SECURITY_NGINX_PORT_REQUEST, web_ports, kPublic, kNoFields, kNone),
    row<nginx_cert_rec>(SECURITY_NGINX_CERT_REQUEST, web_pair, kPrivate, kCertificate, kNone),
    row<security_orphans>(SECURITY_ORPHANS_REQUEST, drop_orphans, kPrivate, kNoFields, kNone),
    row<security_self_test_results>(SECURITY_RESULT_REQUEST, self_test_results, kPublic, kNoFields, kNone),
};

}  // namespace

std::span<const Route> routes() { return kRoutes; }

}  // namespace quill
