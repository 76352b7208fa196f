#include "cli/exchange.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/name_list.h"
#include "base/status.h"
#include "base/text_field.h"
#include "cli/failure.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {

uint32_t ask(int32_t request_type, uint32_t operation, void* record, uint32_t size) {
    security_conf_cmi_byteorder_convert(request_type, record);
    void* reply = nullptr;
    uint32_t length = size;
    const int32_t result = security_cmi(request_type, operation, record, &reply, &length, 0);
    uint32_t status = status_of(static_cast<uint32_t>(result));
    const bool whole = reply != nullptr && length == size;
    if (whole) memcpy(record, reply, size);
    if (status == SECURITY_OK && !whole) status = undelivered_status(EPROTO);
    if (reply != nullptr) explicit_bzero(reply, length);
    free(reply);
    security_conf_cmi_byteorder_convert(request_type, record);
    return status;
}

void require_daemon() {
    char delimiter = 0;  // the shortest record, which everybody may read
    const uint32_t status = ask(SECURITY_BANNER_REQUEST, GET_REQ, &delimiter, sizeof delimiter);
    const bool refused = status == SECURITY_ERR_BUSY || status == SECURITY_ERR_CONTEXT;
    if (refused || is_undelivered(status)) require_success(status, "the daemon", "ask");
}

uint32_t read_names(int32_t request_type, const std::string& user, std::vector<std::string>& names) {
    security_user_roles list{};  // lists of locales have the same layout
    set_text(list.user_name, user.c_str());
    const uint32_t status = ask(request_type, GET_REQ, &list, sizeof list);
    if (status != SECURITY_OK) return status;
    for (const NameSlot& name : names_in_use(list.num_roles, list.roles)) names.push_back(field_text(name));
    return status;
}

}  // namespace quill::cli
