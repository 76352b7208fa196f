// The web server's certificate and its key: a PEM text each, in a table each.
//
// Which of the two is item 0, their callers know. A text is replaced whole, never merged: it is deleted
// before the new one is stored.
#include <openssl/crypto.h>

#include <cstring>

#include "common/store_access.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kFirstTable = 32;   // item 0
constexpr uint32_t kSecondTable = 33;  // any other

Key key_of(uint32_t item) { return Key(item == 0 ? kFirstTable : kSecondTable, uint32_t{0}); }

// The caller's text keeps what it has behind the terminator of the new one, and all of it where there is
// none.
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
    return SECURITY_OK;  // other operations touch nothing
}

}  // namespace
}  // namespace quill

uint32_t security_nginx_ssh_key_config(uint32_t handle, uint32_t operation, nginx_cert_rec* record) {
    using namespace quill;
    const uint32_t status = serve(handle, operation, *record);
    trace("status for the operation:%s", status_text(status));
    return status;
}
