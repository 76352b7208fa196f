#include "cli/exchange.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/failure.h"
#include "common/name_list.h"
#include "common/text_field.h"
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
    if (status == SECURITY_OK && !whole) status = SECURITY_ERR_TRANSPORT | EPROTO;
    if (reply != nullptr) explicit_bzero(reply, length);
    free(reply);
    security_conf_cmi_byteorder_convert(request_type, record);
    return status;
}

uint32_t read_names(int32_t request_type, const std::string& user, std::vector<std::string>& names) {
    security_user_roles list{};  // locales have the same shape
    set_text(list.user_name, user.c_str());
    const uint32_t status = ask(request_type, GET_REQ, &list, sizeof list);
    if (status != SECURITY_OK) return status;
    for (int32_t i = 0; i < std::clamp(list.num_roles, 0, kMostNames); ++i)
        names.emplace_back(list.roles[i], strnlen(list.roles[i], sizeof list.roles[i]));
    return status;
}

}  // namespace quill::cli
