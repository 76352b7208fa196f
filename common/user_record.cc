// The user record: a password and how it is encoded, one record a user name.
//
// A clear password is turned into the reversible cipher on its way in and back on its way out, so that the
// store never holds it in clear and callers never see it otherwise. Users of type 1 live in a table of their
// own.
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "common/byte_order.h"
#include "common/coded_secret.h"
#include "common/store_access.h"
#include "common/text_field.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kTable = 5;
constexpr uint32_t kSecondTable = 7;
constexpr uint32_t kSecondType = 1;

Run value_of(security_user& user) {
    return {&user.user_type, sizeof user - offsetof(security_user, user_type)};
}

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

// The words of the record are big-endian here, as they are stored.
uint32_t serve(uint32_t handle, uint32_t operation, security_user& user) {
    const Key key(big_endian(user.user_type) == kSecondType ? kSecondTable : kTable, user.user_name);
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
    return SECURITY_OK;  // other operations touch nothing
}

}  // namespace
}  // namespace quill

uint32_t security_user_config(uint32_t handle, uint32_t operation, security_user* record) {
    using namespace quill;
    security_user& user = *record;
    trace("In %s:", __func__);
    if (touches_record(operation) && !terminated(user.user_name)) return SECURITY_ERR_REQUEST_TEXT;
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
        return SECURITY_ERR_CRYPT;  // with user_type left big-endian: callers of old know that failure so
    }
    flip(user.user_type);
    return status;
}
