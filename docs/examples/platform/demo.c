/* The library on a platform of one's own, handler and client in one process: switches telnet on through a request
 * and reads it back with the handler. */
#include <quillsecurity.h>
#include <stdio.h>

#include "platform.h"

static uint32_t store;

/* What a daemon does with a request: it checks type and length, converts the words, and calls the handler. */
static uint32_t serve(int32_t type, uint32_t operation, void* record, uint32_t length) {
    security_enable_info* info = record;
    uint32_t status;
    if (type != SECURITY_ENABLE_INFO_REQUEST || length != sizeof *info) return SECURITY_ERR_NOT_SUPPORTED;
    security_conf_cmi_byteorder_convert(type, info);
    status = enable_info_config(store, operation, (int32_t)info->code, &info->value);
    security_conf_cmi_byteorder_convert(type, info);
    return status;
}

int main(void) {
    uint32_t value = 1, status = security_pss_create(&store, "security", 0, 0);
    platform_serve = serve;
    if (status == SECURITY_OK) status = security_conf_default_check(store);
    if (status == SECURITY_OK) status = cmi_enable_info_config(0, SET_REQ, SECURITY_SERVICE_TELNET, &value);
    value = 0;
    if (status == SECURITY_OK) status = enable_info_config(store, GET_REQ, SECURITY_SERVICE_TELNET, &value);
    if (status != SECURITY_OK) {
        fprintf(stderr, "telnet: %s\n", syserr2str(status));
        return 1;
    }
    printf("telnet is %s\n", value != 0 ? "on" : "off");
    return pss2_close(store) != 0;
}
