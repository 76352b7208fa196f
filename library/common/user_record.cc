// Handler of user records: a password and its encoding, one record for each user name.
//
// A password that arrives in clear text is stored enciphered (type 7) and deciphered when it is read. Users
// with user_type 1 have a table of their own.
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "base/byte_order.h"
#include "base/coded_secret.h"
#include "base/tables.h"
#include "base/text_field.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kSecondUserType = 1;

Run value_of(security_user& user) {
    return {&user.user_type, sizeof user - offsetof(security_user, user_type)};
}

// Enciphers the password in place; bytes behind the cipher text's terminator are unchanged. Returns false,
// with the record unchanged, on failure.
bool encode(security_user& user) {
    CodedSecret cipher;
    if (!terminated(user.password) ||
        security_conf_encrypt(user.password, SECURITY_ENCRYPTION_CIPHER, nullptr, 0, cipher.block(),
                              cipher.length()) != SECURITY_OK ||
        !cipher.fits(user.password))
        return false;
    cipher.copy_to(user.password);
    user.encryption_type = SECURITY_ENCRYPTION_CIPHER;
    return true;
}

// Decodes the password in place by its encryption type. Returns false, with the record unchanged, on failure.
bool decode(security_user& user) {
    CodedSecret clear;
    if (!terminated(user.password) ||
        security_conf_decrypt(user.password, static_cast<uint32_t>(strlen(user.password)) + 1,
                              user.encryption_type, nullptr, 0, clear.block(),
                              clear.length()) != SECURITY_OK ||
        !clear.fits(user.password))
        return false;
    clear.copy_to(user.password);
    user.encryption_type = SECURITY_ENCRYPTION_CLEAR;
    return true;
}

// Expects the words of the record in big-endian order, as they are stored.
uint32_t serve(uint32_t handle, uint32_t operation, security_user& user) {
    const bool second = big_endian(user.user_type) == kSecondUserType;
    const Key key(second ? kSecondUsersTable : kUsersTable, user.user_name);
    switch (operation) {
    case GET_REQ:
        trace("GET operation for user:%s", user.user_name);
        return no_key_as(SECURITY_ERR_NOT_FOUND, fetch(handle, key, value_of(user)));
    case GETNEXT_REQ:
        trace("GETNEXT for user:%s", user.user_name);
        return fetch_next(handle, key, user.user_name, value_of(user), SECURITY_ERR_END_OF_TABLE);
    case SET_REQ:
        trace("SET operation for user:%s", user.user_name);
        return store(handle, key, value_of(user));
    case DEL_REQ:
        trace("DELETE operation for user:%s", user.user_name);
        return erase(handle, key);
    }
    return SECURITY_OK;  // any other operation does nothing
}

}  // namespace
}  // namespace quill

uint32_t security_user_config(uint32_t handle, uint32_t operation, security_user* record) {
    using namespace quill;
    security_user& user = *record;
    trace("In %s:", __func__);
    if (is_record_operation(operation) && !terminated(user.user_name)) return SECURITY_ERR_REQUEST_TEXT;
    if (operation == SET_REQ && user.encryption_type == SECURITY_ENCRYPTION_CLEAR && !encode(user)) {
        trace("encryption failed for user:%s", user.user_name);
        return SECURITY_ERR_CRYPT;
    }
    flip(user.encryption_type);
    flip(user.user_type);
    const uint32_t status = serve(handle, operation, user);
    flip(user.encryption_type);
    trace("status for the operation:%s", status_text(status));

    const bool found = status == SECURITY_OK && (operation == GET_REQ || operation == GETNEXT_REQ);
    if (found && user.encryption_type != SECURITY_ENCRYPTION_CLEAR && !decode(user)) {
        trace("decryption failed for user:%s", user.user_name);
        return SECURITY_ERR_CRYPT;  // user_type stays big-endian: existing callers expect that
    }
    flip(user.user_type);
    return status;
}
