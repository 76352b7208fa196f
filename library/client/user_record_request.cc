// The client function for user records.
#include "library/common/request.h"
#include "quillsecurity.h"

uint32_t cmi_security_user_config(uint32_t connection, uint32_t operation, security_user* record) {
    return quill::request(SECURITY_USER_REQUEST, operation, *record, connection);
}
