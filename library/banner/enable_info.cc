// Services: one 32-bit value each, such as an on/off switch, a key size or a port.
//
// Values are never deleted. Reading a value that was never set is an error, so that the caller decides on a
// default; only scp reads as 0.
#include "base/byte_order.h"
#include "base/tables.h"
#include "library/common/request.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

const enable_info_str_entry enable_info_str_table[] = {
    {SECURITY_SERVICE_SSH, "ssh"},
    {SECURITY_SERVICE_TELNET, "telnet"},
    {SECURITY_SERVICE_HTTP_SERVER, "http-server"},
    {SECURITY_SERVICE_RSA_KEY, "rsa key"},
    {SECURITY_SERVICE_DSA_KEY, "dsa key"},
    {SECURITY_SERVICE_RSA1_KEY, "rsa1 key"},
    {SECURITY_SERVICE_FIPS, "fips"},
    {SECURITY_SERVICE_SCP, "scp"},
    {SECURITY_SERVICE_BASH_SHELL, "bash-shell"},
    {SECURITY_SERVICE_PLOTY, "ploty"},
    {SECURITY_SERVICE_PLOTY_HTTP_PORT, "ploty http port"},
    {SECURITY_SERVICE_PLOTY_HTTPS_PORT, "ploty https port"},
};
const int32_t enable_info_str_table_size = sizeof enable_info_str_table / sizeof *enable_info_str_table;

namespace quill {
namespace {

// Expects `value` in big-endian order, as it is stored.
uint32_t serve(uint32_t handle, uint32_t operation, int32_t code, uint32_t& value) {
    const Key key(kServicesTable, code);
    const Run stored{&value, sizeof value};
    switch (operation) {
    case GET_REQ: {
        trace("GET_REQ for %s", enable_info_to_str(code));
        const uint32_t status = fetch(handle, key, stored);
        if (status == SECURITY_PSS_NO_KEY && code == SECURITY_SERVICE_SCP) {
            value = 0;
            return SECURITY_OK;
        }
        return no_key_as(SECURITY_ERR_NO_VALUE, status);
    }
    case SET_REQ:
        trace("SET_REQ for %s with value:%d", enable_info_to_str(code), big_endian(value));
        return store(handle, key, stored);
    }
    return SECURITY_OK;  // any other operation does nothing
}

// Returns the time limit of a request in seconds. The daemon needs minutes to generate host keys or to switch
// FIPS mode, and seconds to start the HTTP API.
uint32_t request_timeout(int32_t code) {
    switch (code) {
    case SECURITY_SERVICE_RSA_KEY:
    case SECURITY_SERVICE_DSA_KEY:
    case SECURITY_SERVICE_RSA1_KEY:
    case SECURITY_SERVICE_FIPS:
        return 180;
    case SECURITY_SERVICE_PLOTY:
        return 15;
    }
    return security_cmi_timeout;
}

}  // namespace
}  // namespace quill

const char* enable_info_to_str(int32_t code) {
    for (int32_t i = 0; i < enable_info_str_table_size; ++i)
        if (enable_info_str_table[i].code == code) return enable_info_str_table[i].name;
    return nullptr;
}

uint32_t enable_info_config(uint32_t handle, uint32_t operation, int32_t code, uint32_t* value) {
    using namespace quill;
    flip(*value);
    const uint32_t status = serve(handle, operation, code, *value);
    trace("got back the return value of configuration operation:%s", status_text(status));
    flip(*value);
    return status;
}

uint32_t cmi_enable_info_config(uint32_t connection, uint32_t operation, int32_t code, uint32_t* value) {
    const quill::RequestTimeout wait(quill::request_timeout(code));
    security_enable_info record{static_cast<uint32_t>(code), *value};
    const uint32_t status = quill::request(SECURITY_ENABLE_INFO_REQUEST, operation, record, connection);
    if (status == SECURITY_OK) *value = record.value;
    return status;
}
