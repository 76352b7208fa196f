// Entry points of user management: requests in frames, and functions for the common requests.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/text_field.h"
#include "base/wiped.h"
#include "library/client/user_change.h"
#include "library/common/request.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr time_t kDay = 86400;
constexpr char kNoPassword[] = "!!!!!!!!!!!";
constexpr int kResultTraceLine = 2985;  // the line number that existing logs have

template <size_t size>
void set_argument(char (&field)[size], const char* text) {
    set_text(field, text != nullptr ? text : "");
}

// Makes the record that of an account that nobody can log in to and that expires a day from now.
void make_placeholder(common_user_record& user) {
    const time_t tomorrow = time(nullptr) + kDay;
    if (const tm* date = localtime(&tomorrow)) set_expiry(user, *date);
    user.password_format = SECURITY_PASSWORD_STORED;
    set_text(user.password, kNoPassword);
}

// Reads a date "year-month-day"; a null or empty text means none (-1). Returns false for any other text.
bool read_expiry(common_user_record& user, const char* expiry) {
    int year = -1, month = -1, day = -1;
    const bool given = expiry != nullptr && expiry[0] != '\0';
    // NOLINTNEXTLINE(cert-err34-c): the range of the date is checked before it is sent
    if (given && sscanf(expiry, "%d-%d-%d", &year, &month, &day) != 3) return false;
    user.expiry_year = year;
    user.expiry_month = month;
    user.expiry_day = day;
    return true;
}

uint32_t change_member(uint32_t connection, int32_t kind, uint32_t operation, const char* user,
                       const char* name, const char* cmi_username, uint32_t session_id) {
    common_user_frame frame{};
    frame.kind = kind;
    set_argument(frame.body.member.user_name, user);
    set_argument(frame.body.member.name, name);
    return cmi_security_common_user_config(connection, operation, &frame, cmi_username, session_id);
}

}  // namespace
}  // namespace quill

uint32_t cmi_security_common_user_config(uint32_t connection, uint32_t operation, common_user_frame* frame,
                                         const char* cmi_username, uint32_t session_id) {
    security_cmi_username = cmi_username;
    security_cmi_session_id = session_id;
    frame->text[0] = '\0';
    quill::trace("cmi_security_common_user_config(%d)\n", static_cast<int>(frame->kind));
    switch (frame->kind) {
    case SECURITY_FRAME_USER:
        return cmi_common_user_config(connection, operation, &frame->body.user);
    case SECURITY_FRAME_ROLE:
        return cmi_common_user_role_config(connection, operation, &frame->body.member);
    case SECURITY_FRAME_USER_COUNT: {
        uint32_t count = 0;  // the word in the frame may be unaligned
        const uint32_t status = cmi_security_num_users_get(connection, &count);
        frame->body.count = count;
        return status;
    }
    case SECURITY_FRAME_LOCALE:
        return cmi_common_user_locale_config(connection, operation, &frame->body.member);
    }
    return SECURITY_OK;
}

uint32_t cmi_security_common_user_create(uint32_t connection, const char* user, const char* expiry,
                                         const char* role, const char* password, uint8_t password_format,
                                         uint8_t account_kind, const char* cmi_username,
                                         uint32_t session_id) {
    using namespace quill;
    Wiped<common_user_frame> frame;
    frame.kind = SECURITY_FRAME_USER;
    common_user_record& record = frame.body.user;
    set_argument(record.name, user);
    record.password_format = password_format;
    set_argument(record.password, password);
    set_argument(record.role, role);
    record.account_kind = account_kind;
    if (account_kind == SECURITY_ACCOUNT_EXPIRED)
        make_placeholder(record);
    else if (!read_expiry(record, expiry))
        return SECURITY_ERR_DATE_FORMAT;
    return cmi_security_common_user_config(connection, SET_REQ, &frame, cmi_username, session_id);
}

uint32_t cmi_security_common_create_expired_user(uint32_t connection, const char* user, const char* expiry,
                                                 const char* role, const char* password,
                                                 uint8_t password_format, uint8_t account_kind,
                                                 const char* cmi_username, uint32_t session_id) {
    quill::accept_expired_users();
    return cmi_security_common_user_create(connection, user, expiry, role, password, password_format,
                                           account_kind, cmi_username, session_id);
}

uint32_t cmi_security_common_user_delete(uint32_t connection, const char* user, const char* cmi_username,
                                         uint32_t session_id) {
    common_user_frame frame{};
    frame.kind = SECURITY_FRAME_USER;
    quill::set_argument(frame.body.user.name, user);
    return cmi_security_common_user_config(connection, DEL_REQ, &frame, cmi_username, session_id);
}

uint32_t cmi_security_common_user_role_assign(uint32_t connection, const char* user, const char* role,
                                              const char* cmi_username, uint32_t session_id) {
    return quill::change_member(connection, SECURITY_FRAME_ROLE, SET_REQ, user, role, cmi_username,
                                session_id);
}

uint32_t cmi_security_common_user_role_unassign(uint32_t connection, const char* user, const char* role,
                                                const char* cmi_username, uint32_t session_id) {
    return quill::change_member(connection, SECURITY_FRAME_ROLE, DEL_REQ, user, role, cmi_username,
                                session_id);
}

uint32_t cmi_security_common_user_locale_assign(uint32_t connection, const char* user, const char* locale,
                                                const char* cmi_username, uint32_t session_id) {
    return quill::change_member(connection, SECURITY_FRAME_LOCALE, SET_REQ, user, locale, cmi_username,
                                session_id);
}

uint32_t cmi_security_common_user_locale_unassign(uint32_t connection, const char* user, const char* locale,
                                                  const char* cmi_username, uint32_t session_id) {
    return quill::change_member(connection, SECURITY_FRAME_LOCALE, DEL_REQ, user, locale, cmi_username,
                                session_id);
}

uint32_t cmi_post_lc_result(uint32_t connection, void* result) {
    security_self_test_results record{};
    const uint32_t status =
        quill::exchange(SECURITY_RESULT_REQUEST, GET_REQ, &record, sizeof record, connection);
    if (status != SECURITY_OK) return status;
    quill::trace("%s(%d): num_entries :%d", __func__, quill::kResultTraceLine, record.num_entries);
    memcpy(result, &record, sizeof record);
    return status;
}
