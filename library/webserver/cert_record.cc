// Handler of the web server's certificate and key: two PEM texts, each in a table of its own.
//
// The callers decide which of the two is item 0. The old text is deleted before the new one is stored, so a
// failure leaves none.
#include <openssl/crypto.h>

#include <cstring>

#include "base/tables.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

Key key_of(uint32_t item) { return Key(item == 0 ? kFirstWebTable : kSecondWebTable, uint32_t{0}); }

// Overwrites the caller's text up to the terminator of the stored one; bytes behind it are unchanged.
uint32_t get(uint32_t handle, nginx_cert_rec& record) {
    char stored[sizeof record.text];
    const uint32_t status = fetch(handle, key_of(record.item), {stored, sizeof stored});
    if (status == SECURITY_OK) {
        const size_t length = strnlen(stored, sizeof stored - 1);
        memcpy(record.text, stored, length);
        record.text[length] = '\0';
    }
    OPENSSL_cleanse(stored, sizeof stored);
    return status;
}

uint32_t set(uint32_t handle, nginx_cert_rec& record) {
    trace("NGINX Key SET operation for cert/key:%d", record.item);
    const Key key = key_of(record.item);
    trace("DELETE operation for cert/key:%d", record.item);
    const uint32_t status = no_key_as(SECURITY_OK, erase(handle, key));
    if (status != SECURITY_OK) return status;
    trace("SET operation for cert/key:%d", record.item);
    return store(handle, key, {record.text, sizeof record.text});
}

uint32_t serve(uint32_t handle, uint32_t operation, nginx_cert_rec& record) {
    switch (operation) {
    case GET_REQ:
        trace("NGINX key GET operation for key/cert :%d", record.item);
        return get(handle, record);
    case SET_REQ:
        return set(handle, record);
    case DEL_REQ:
        trace("DELETE operation for (cert/key) %d", record.item);
        return erase(handle, key_of(record.item));
    }
    return SECURITY_OK;  // any other operation does nothing
}

}  // namespace
}  // namespace quill

uint32_t security_nginx_ssh_key_config(uint32_t handle, uint32_t operation, nginx_cert_rec* record) {
    using namespace quill;
    const uint32_t status = serve(handle, operation, *record);
    trace("status for the operation:%s", status_text(status));
    return status;
}
