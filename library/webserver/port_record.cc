// Handler of the web server's ports: one word for each service code.
//
// A port that was never set reads as 0; for any other code that is an error. Two traces print a byte-swapped
// number: existing logs have it so.
#include "base/byte_order.h"
#include "base/tables.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

bool is_port(int32_t item) {
    return item == SECURITY_SERVICE_PLOTY_HTTP_PORT || item == SECURITY_SERVICE_PLOTY_HTTPS_PORT;
}

uint32_t get(uint32_t handle, const Key& key, int32_t item, uint32_t& value) {
    trace("NGINX: GET_REQ for %s", enable_info_to_str(item));
    uint32_t stored = 0;
    const uint32_t status = fetch(handle, key, {&stored, sizeof stored});
    if (status == SECURITY_PSS_NO_KEY && !is_port(item)) return SECURITY_ERR_NO_VALUE;
    if (status != SECURITY_OK && status != SECURITY_PSS_NO_KEY) return status;
    value = big_endian(stored);
    return SECURITY_OK;
}

uint32_t set(uint32_t handle, const Key& key, int32_t item, uint32_t& value) {
    flip(value);
    trace("NGINX: SET_REQ for %s with value:%d", enable_info_to_str(item), value);
    const uint32_t status = store(handle, key, {&value, sizeof value});
    if (status == SECURITY_OK) flip(value);  // a failure leaves it big-endian: existing callers expect that
    return status;
}

uint32_t serve(uint32_t handle, int32_t operation, int32_t item, uint32_t& value) {
    const Key key(item == SECURITY_SERVICE_PLOTY_HTTP_PORT ? kHttpPortTable : kOtherPortTable, item);
    switch (operation) {
    case GET_REQ:
        return get(handle, key, item, value);
    case SET_REQ:
        return set(handle, key, item, value);
    case DEL_REQ:
        trace("Nginx: DEL_REQ for http/https :%d", big_endian(static_cast<uint32_t>(item)));
        return erase(handle, key);
    }
    return SECURITY_OK;  // any other operation does nothing
}

}  // namespace
}  // namespace quill

uint32_t nginx_port_info_config(uint32_t handle, int32_t operation, int32_t item, uint32_t* value) {
    using namespace quill;
    trace("%s :: Entered function with value %s\n", __func__, enable_info_to_str(item));
    const uint32_t status = serve(handle, operation, item, *value);
    trace("NGINX: got back the return value of configuration operation:%s", status_text(status));
    return status;
}
