#include "daemon/routes.h"

#include <openssl/crypto.h>

#include "common/coded_secret.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// The usual adapter: the handler takes the record as it is.
template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t by(uint32_t store, uint32_t operation, void* record) {
    return handler(store, operation, static_cast<Record*>(record));
}

uint32_t enable_info(uint32_t store, uint32_t operation, void* record) {
    auto& info = *static_cast<security_enable_info*>(record);
    return enable_info_config(store, operation, static_cast<int32_t>(info.code), &info.value);
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

#undef TEXT
#undef COUNT

constexpr Route kRoutes[] = {
    {SECURITY_ENABLE_INFO_REQUEST, sizeof(security_enable_info), enable_info, Access::kEveryone,
     Access::kAdministrators},
    {SECURITY_USER_REQUEST, sizeof(security_user), by<security_user, security_user_config>,
     Access::kAdministrators, Access::kAdministrators, kUserTexts},
    {SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), priv_info, Access::kAdministrators,
     Access::kAdministrators, kPrivInfoTexts, kPrivInfoCounts},
};

}  // namespace

std::span<const Route> routes() { return kRoutes; }

}  // namespace quill
