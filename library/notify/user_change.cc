// Notifications of user changes: sending them as TLV messages, and parsing received ones.
#include <syslog.h>

#include <iterator>

#include "base/block.h"
#include "base/text_field.h"
#include "quillplatform/mts.h"
#include "quillsecurity.h"

#define TEXT(name, value, text) text,
const char* const security_notification_msg[] = {SECURITY_USER_CHANGE_LIST(TEXT)};
#undef TEXT

namespace quill {
namespace {

constexpr uint32_t kFillStructure = 1;  // TLVU_MODE_FILL

// Returns the text of a type, empty for an unknown one.
const char* text_of(uint32_t type) {
    return type - 1 < std::size(security_notification_msg) ? security_notification_msg[type - 1] : "";
}

uint32_t announce(uint32_t mts_handle, const security_notification& notification) {
    void* message = nullptr;
    uint32_t length = 0;
    const uint32_t status = tlvu_security_notification_to_tlv(&notification, &message, &length);
    const Block<void> owned(message);
    if (status != 0) return status;
    return security_mts_notify(mts_handle, SECURITY_MTS_USER_CHANGE, message, static_cast<uint16_t>(length));
}

}  // namespace
}  // namespace quill

uint32_t security_init_security_notif(security_notification** structure) {
    *structure = static_cast<security_notification*>(calloc(1, sizeof **structure));
    return *structure == nullptr ? 1 : 0;
}

uint32_t security_mts_notify(uint32_t mts_handle, uint32_t opcode, const void* payload, uint16_t length) {
    const int32_t sent = mts_send(mts_handle, MTS_THIS_NODE, MTS_SAP_ALL, opcode, payload, length, 0, 0, 0);
    return sent == -1 ? mts_errno_get(mts_handle) : static_cast<uint32_t>(sent);
}

uint32_t security_userchange_notify(uint32_t mts_handle, uint32_t type, const char* user, uint32_t number,
                                    const security_role_set* role_set, const char* text) {
    security_notification* allocated = nullptr;
    if (const uint32_t status = security_init_security_notif(&allocated); status != 0) return status;
    const quill::Block<security_notification> notification(allocated);
    notification->type = type;
    if (user != nullptr) quill::set_unterminated_text(notification->user_name, user);
    notification->number = number;
    if (role_set != nullptr) notification->role_set = *role_set;
    if (text != nullptr) quill::set_unterminated_text(notification->text, text);
    const uint32_t status = quill::announce(mts_handle, *notification);
    if (status == 0)
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "%s %s", quill::text_of(type), user != nullptr ? user : "");
    return status;
}

int32_t security_mts_usernotif_parser(const void* message, void* structure) {
    if (message == nullptr || structure == nullptr) return -1;
    return static_cast<int32_t>(tlvu_security_notification_to_struct(
        mts_payload_get(message), mts_payload_size(message), &structure, quill::kFillStructure));
}
