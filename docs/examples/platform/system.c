/* Everything but the store, in the shortest form that is correct. Comments say what a real platform adds. */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

#include "platform.h"

/* ---- the request channel (shell.h): a real one reaches the daemon's process, checks lengths there, and gives up
 * after security_cmi_timeout seconds */

platform_server platform_serve;
uint32_t security_cmi_timeout;
const char* security_cmi_username;
uint32_t security_cmi_session_id;

int32_t security_cmi(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t connection) {
    int32_t status;
    void* record = malloc(*length > 0 ? *length : 1);
    (void)connection;
    if (reply != NULL) *reply = NULL;
    if (record == NULL) return -1;
    if (platform_serve == NULL) {
        free(record);
        errno = ECONNREFUSED;
        return -1;
    }
    memcpy(record, request, *length);
    status = (int32_t)platform_serve(request_type, operation, record, *length);
    if (reply != NULL) {
        *reply = record;
    } else {
        explicit_bzero(record, *length);
        free(record);
    }
    return status;
}

int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                      uint32_t connection) {
    return security_cmi(request_type, operation, request, reply, length, connection);
}

/* ---- names and files (shell.h) */

int32_t vsh_xml_parse_uri(const char* uri, char* device, char* path) {
    const char* colon = strchr(uri, ':');
    const char* rest = colon != NULL ? colon + 1 : uri;
    if (*rest == '/') ++rest;
    *device = *path = '\0';
    if (strlen(rest) > 255 || (colon != NULL && colon - uri > 255)) return -1;
    if (colon != NULL) snprintf(device, 256, "%.*s", (int)(colon - uri), uri);
    snprintf(path, 256, "%s", rest);
    return 0;
}

int32_t vshd_perm_group_role_name_verify(uint32_t connection, const char* role) {
    (void)connection;
    return strcmp(role, "network-admin") == 0 || strcmp(role, "network-operator") == 0 ? 0 : -1;
}

int32_t vshd_perm_locale_name_verify(uint32_t connection, const char* locale) {
    (void)connection, (void)locale;
    return -1; /* there are none */
}

/* ---- the system manager (sysmgr.h) and random numbers (random.h) */

int32_t sysmgrcmn_vdc_id_get(void) { return 1; }

uint32_t get_card_module_info(card_module_info* info) {
    (void)info;
    return 1; /* the type of the card is not known */
}

uint32_t TRAL_random(void) {
    uint32_t number;
    while (getrandom(&number, sizeof number, 0) != sizeof number) continue;
    return number;
}

/* ---- accounts (accounts.h): a real one reads /etc/shadow */

platform_shadow_entry* mygetspnam(uint32_t handle, const char* name) {
    (void)handle, (void)name;
    return NULL;
}

/* ---- traces (trace.h): off, so that the library does not format them */

const char* sdwrap_dbg_modname = "";
uint32_t sdwrap_hist_event_subtype_check(uint32_t module, uint32_t subtype) {
    (void)module, (void)subtype;
    return 1;
}
uint32_t sdwrap_hist_event(uint32_t module, uint32_t length, const void* event) {
    (void)module, (void)length, (void)event;
    return 0;
}
uint32_t sdwrap_chk_int(uint32_t subtype, uint32_t a, uint32_t b, uint32_t c) {
    (void)subtype, (void)a, (void)b, (void)c;
    return 0;
}
void buginf(uint32_t level, const char* module_name, uint32_t zero, const char* format, ...) {
    (void)level, (void)module_name, (void)zero, (void)format;
}

/* ---- the message transport (mts.h) and its messages (tlv.h): there are none, and each function says so. What
 * the library announces is then lost, as it is where nobody listens. */

int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t a, uint32_t b, uint32_t c) {
    (void)handle, (void)node, (void)sap, (void)opcode, (void)payload, (void)length, (void)a, (void)b, (void)c;
    return -1;
}
uint32_t mts_errno_get(uint32_t handle) { return (void)handle, ENOSYS; }
uint32_t mts_opc_get(const void* message) { return (void)message, 0; }
void* mts_payload_get(const void* message) { return (void)message, NULL; }
uint32_t mts_payload_size(const void* message) { return (void)message, 0; }

uint32_t tlvu_table_convert_struct_to_tlv(const void* table, const void* structure, void** tlv,
                                          uint32_t* tlv_length) {
    return (void)table, (void)structure, (void)tlv, (void)tlv_length, TLVU_NO_MEMORY;
}
uint32_t tlvu_table_convert_tlv_to_struct(const void* table, const void* tlv, uint32_t tlv_length,
                                          void** structure, uint32_t mode) {
    return (void)table, (void)tlv, (void)tlv_length, (void)structure, (void)mode, TLVU_MALFORMED;
}
uint32_t tlvu_table_get_struct_size_from_tlv(const void* table, const void* tlv, uint32_t tlv_length,
                                             uint32_t* size) {
    return (void)table, (void)tlv, (void)tlv_length, (void)size, TLVU_MALFORMED;
}
uint32_t tlvu_table_size(const void* table, const void* structure) { return (void)table, (void)structure, 0; }
uint32_t tlvu_get_field(const void* table, const void* tlv, uint32_t tlv_length, uint32_t field_id,
                        void** value, uint32_t* value_length) {
    return (void)table, (void)tlv, (void)tlv_length, (void)field_id, (void)value, (void)value_length,
           TLVU_NO_FIELD;
}
uint32_t tlvu_field_itr_init(const void* table, const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr) {
    return (void)table, (void)tlv, (void)tlv_length, (void)itr, TLVU_MALFORMED;
}
uint32_t tlvu_field_itr_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                 uint32_t* value_length) {
    return (void)itr, (void)field_id, (void)value, (void)value_length, TLVU_NO_FIELD;
}
void* tlvu_malloc(uint32_t size) { return malloc(size); }
uint32_t tlv_array_size_get(const void* array, uint32_t index) { return (void)array, (void)index, 0; }
void tlvu_error_print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}
