// Roles and locales of a user: checking, walking, adding and removing single names.
//
// The daemon keeps the list of a user as one record. To add a name, it is read, extended and written back.
#include <pwd.h>

#include <cstring>
#include <mutex>

#include "base/name_list.h"
#include "base/text_field.h"
#include "library/common/request.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// The differences between roles and locales.
struct MemberKind {
    int32_t get_request;  // request types: to look a name up, and to change the list
    int32_t change_request;
    uint32_t unknown;  // statuses
    uint32_t not_held;
    uint32_t too_many;
    int32_t (*verify)(uint32_t connection, const char* name);
    bool (*has_account)(const char* user);
    void (*trace_held)(const char* name);  // traces that the user holds the name already
};

constexpr MemberKind kRole{
    SECURITY_ROLES_REQUEST,
    SECURITY_ROLE_ASSIGN_REQUEST,
    SECURITY_ERR_UNKNOWN_ROLE,
    SECURITY_ERR_ROLE_NOT_HELD,
    SECURITY_ERR_TOO_MANY_ROLES,
    vshd_perm_group_role_name_verify,
    [](const char* user) { return vdc_getpwnam(user) != nullptr; },
    [](const char* name) { trace("Role %s already assigned", name); },
};
constexpr MemberKind kLocale{
    SECURITY_LOCALE_ASSIGN_REQUEST,
    SECURITY_LOCALE_ASSIGN_REQUEST,
    SECURITY_ERR_UNKNOWN_LOCALE,
    SECURITY_ERR_LOCALE_NOT_HELD,
    SECURITY_ERR_TOO_MANY_LOCALES,
    vshd_perm_locale_name_verify,
    [](const char* user) { return getpwnam(user) != nullptr; },  // by the plain name in every context
    [](const char*) {},
};

// A user and a role or locale, both terminated.
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
    list.count = static_cast<int32_t>(names_in_use(list.count, list.names).size());
    return status;
}

bool holds(const NameList& list, const Member& member) {
    return find_name(names_in_use(list.count, list.names), member.name) >= 0;
}

// The daemon refuses a list that another process changed since it was read. It cannot tell threads of one
// process apart, which share a connection, so they take turns wherever a list is read.
std::mutex reading_and_writing;

uint32_t check(const MemberKind& kind, uint32_t connection, const Member& member) {
    const std::lock_guard lock(reading_and_writing);
    NameList list;
    const uint32_t status = read_list(connection, kind.get_request, member, list);
    if (status != SECURITY_OK) return status;
    return holds(list, member) ? SECURITY_OK : kind.not_held;
}

uint32_t write_list(const MemberKind& kind, uint32_t operation, uint32_t connection, const NameList& list) {
    return with_errno(send(kind.change_request, operation, &list, sizeof list, nullptr, connection));
}

uint32_t add(const MemberKind& kind, uint32_t connection, const Member& member) {
    const std::lock_guard lock(reading_and_writing);
    if (!kind.has_account(member.user)) return SECURITY_ERR_NOT_FOUND;
    NameList list;
    const uint32_t status = read_list(connection, kind.change_request, member, list);
    if (status != SECURITY_OK) return status;
    if (holds(list, member)) {
        kind.trace_held(member.name);
        return SECURITY_OK;
    }
    if (list.count == kMostNames) return kind.too_many;
    copy_field(list.names[list.count++], member.name);
    return write_list(kind, SET_REQ, connection, list);
}

uint32_t remove(const MemberKind& kind, uint32_t connection, const Member& member) {
    NameList list{};
    copy_field(list.user_name, member.user);
    list.count = 1;
    copy_field(list.names[0], member.name);
    return write_list(kind, DEL_REQ, connection, list);
}

// Replaces the user and role by those that follow. Users without roles are skipped.
uint32_t next_role(uint32_t connection, common_user_member& record) {
    const auto next_user = [&] {
        const uint32_t status = security_conf_user_getnext(connection, record.user_name);
        if (status == SECURITY_OK) set_text(record.name, "");
        return status == SECURITY_ERR_END_OF_TABLE ? SECURITY_ERR_NO_MORE_ROLES : status;
    };
    uint32_t status = record.user_name[0] == '\0' ? next_user() : SECURITY_OK;
    while (status == SECURITY_OK) {
        status = security_conf_user_role_getnext(connection, record.user_name, record.name);
        if (status != SECURITY_ERR_NO_MORE_ROLES) return status;
        status = next_user();
    }
    return status;
}

}  // namespace
}  // namespace quill

uint32_t cmi_common_user_role_config(uint32_t connection, uint32_t operation, common_user_member* record) {
    using namespace quill;
    trace("In %s:", __func__);
    if (operation == GETNEXT_REQ) {
        trace("%s: GETNEXT_REQ", __func__);
        terminate(record->user_name);
        terminate(record->name);
        return next_role(connection, *record);
    }
    const Member member(*record);
    if (operation == GET_REQ) {
        trace("%s: GET_REQ", __func__);
        return check(kRole, connection, member);
    }
    if (kRole.verify(connection, member.name) != 0) return kRole.unknown;
    if (operation == DEL_REQ) return remove(kRole, connection, member);
    if (operation != SET_REQ) return SECURITY_OK;
    trace("%s: SET_REQ", __func__);
    return add(kRole, connection, member);
}

uint32_t cmi_common_user_locale_config(uint32_t connection, uint32_t operation, common_user_member* record) {
    using namespace quill;
    const Member member(*record);
    if (operation == GET_REQ) return check(kLocale, connection, member);
    if (kLocale.verify(connection, member.name) != 0) return kLocale.unknown;
    if (operation == DEL_REQ) return remove(kLocale, connection, member);
    if (operation != SET_REQ) return SECURITY_OK;
    return add(kLocale, connection, member);
}
