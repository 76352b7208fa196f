// Roles and locales of a user: asked for, walked, added and removed one at a time.
//
// The daemon keeps each user's list as one record. Adding reads it, appends a name and writes it back.
#include <pwd.h>

#include <algorithm>
#include <cstring>

#include "common/name_list.h"
#include "common/request.h"
#include "common/text_field.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// What differs between the two.
struct Kind {
    int32_t asking;  // request types
    int32_t changing;
    uint32_t unknown;  // statuses
    uint32_t not_held;
    uint32_t too_many;
    int32_t (*verify)(uint32_t connection, const char* name);
    bool (*has_account)(const char* user);
    bool (*held_already)(const char* name);  // says so, and answers true
};

constexpr Kind kRole{
    SECURITY_ROLES_REQUEST,
    SECURITY_ROLE_ASSIGN_REQUEST,
    SECURITY_ERR_UNKNOWN_ROLE,
    SECURITY_ERR_ROLE_NOT_HELD,
    SECURITY_ERR_TOO_MANY_ROLES,
    vshd_perm_group_role_name_verify,
    [](const char* user) { return vdc_getpwnam(user) != nullptr; },
    [](const char* name) {
        trace("Role %s already assigned", name);
        return true;
    },
};
constexpr Kind kLocale{
    SECURITY_LOCALE_ASSIGN_REQUEST,
    SECURITY_LOCALE_ASSIGN_REQUEST,
    SECURITY_ERR_UNKNOWN_LOCALE,
    SECURITY_ERR_LOCALE_NOT_HELD,
    SECURITY_ERR_TOO_MANY_LOCALES,
    vshd_perm_locale_name_verify,
    [](const char* user) { return getpwnam(user) != nullptr; },  // by the plain name, in every context
    [](const char*) { return true; },
};

// Who, and which name, terminated.
struct Member {
    char user[128];
    char name[65];

    explicit Member(const common_user_member& record) {
        copy_field(user, record.user_name);
        copy_field(name, record.name);
    }
};

uint32_t read_list(uint32_t connection, int32_t request_type, const Member& member, NameList& list) {
    list = {};
    copy_field(list.user_name, member.user);
    const uint32_t status = with_errno(request(request_type, GET_REQ, list, connection));
    list.count = std::clamp(list.count, 0, kMostNames);
    return status;
}

bool holds(const NameList& list, const Member& member) {
    return std::any_of(list.names, list.names + list.count, [&member](const char(&name)[65]) {
        return strncmp(name, member.name, sizeof name) == 0;
    });
}

uint32_t ask(const Kind& kind, uint32_t connection, const Member& member) {
    NameList list;
    const uint32_t status = read_list(connection, kind.asking, member, list);
    if (status != SECURITY_OK) return status;
    return holds(list, member) ? SECURITY_OK : kind.not_held;
}

uint32_t write_list(const Kind& kind, uint32_t operation, uint32_t connection, const NameList& list) {
    return with_errno(send(kind.changing, operation, &list, sizeof list, nullptr, connection));
}

uint32_t add(const Kind& kind, uint32_t connection, const Member& member) {
    if (!kind.has_account(member.user)) return SECURITY_ERR_NOT_FOUND;
    NameList list;
    const uint32_t status = read_list(connection, kind.changing, member, list);
    if (status != SECURITY_OK) return status;
    if (holds(list, member) && kind.held_already(member.name)) return SECURITY_OK;
    if (list.count == kMostNames) return kind.too_many;
    copy_field(list.names[list.count++], member.name);
    return write_list(kind, SET_REQ, connection, list);
}

uint32_t remove(const Kind& kind, uint32_t connection, const Member& member) {
    NameList list{};
    copy_field(list.user_name, member.user);
    list.count = 1;
    copy_field(list.names[0], member.name);
    return write_list(kind, DEL_REQ, connection, list);
}

// The (user, role) that follows; a user without roles is passed over.
uint32_t next_role(uint32_t handle, common_user_member& record) {
    const auto next_user = [&] {
        const uint32_t status = security_conf_user_getnext(handle, record.user_name);
        if (status == SECURITY_OK) set_text(record.name, "");
        return status == SECURITY_ERR_END_OF_TABLE ? SECURITY_ERR_NO_MORE_ROLES : status;
    };
    uint32_t status = record.user_name[0] == '\0' ? next_user() : SECURITY_OK;
    while (status == SECURITY_OK) {
        status = security_conf_user_role_getnext(handle, record.user_name, record.name);
        if (status != SECURITY_ERR_NO_MORE_ROLES) return status;
        status = next_user();
    }
    return status;
}

}  // namespace
}  // namespace quill

uint32_t cmi_common_user_role_config(uint32_t handle, uint32_t operation, common_user_member* record) {
    using namespace quill;
    trace("In %s:", __func__);
    if (operation == GETNEXT_REQ) {
        trace("%s: GETNEXT_REQ", __func__);
        terminate(record->user_name);
        terminate(record->name);
        return next_role(handle, *record);
    }
    const Member member(*record);
    if (operation == GET_REQ) {
        trace("%s: GET_REQ", __func__);
        return ask(kRole, handle, member);
    }
    if (kRole.verify(handle, member.name) != 0) return kRole.unknown;
    if (operation == DEL_REQ) return remove(kRole, handle, member);
    if (operation != SET_REQ) return SECURITY_OK;
    trace("%s: SET_REQ", __func__);
    return add(kRole, handle, member);
}

uint32_t cmi_common_user_locale_config(uint32_t handle, uint32_t operation, common_user_member* record) {
    using namespace quill;
    const Member member(*record);
    if (operation == GET_REQ) return ask(kLocale, handle, member);
    if (kLocale.verify(handle, member.name) != 0) return kLocale.unknown;
    if (operation == DEL_REQ) return remove(kLocale, handle, member);
    if (operation != SET_REQ) return SECURITY_OK;
    return add(kLocale, handle, member);
}
