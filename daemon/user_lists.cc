#include "daemon/user_lists.h"

#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <cstring>

#include "common/name_list.h"
#include "common/text_field.h"
#include "daemon/accounts.h"
#include "daemon/announce.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// What differs between the two records, which have one shape.
struct Kind {
    uint32_t (*stored)(uint32_t store, uint32_t operation, void* record);
    int32_t (*verify)(uint32_t connection, const char* name);
    uint32_t unknown;
    uint32_t not_held;
    bool walked;  // the handler of locales would walk into other people's records
};

uint32_t stored_roles(uint32_t store, uint32_t operation, void* record) {
    return security_user_roles_config(store, operation, static_cast<security_user_roles*>(record));
}
uint32_t stored_locales(uint32_t store, uint32_t operation, void* record) {
    return security_user_locales_config(store, operation, static_cast<security_user_locales*>(record));
}

constexpr size_t kSuffix = 4;  // "#NN#"

constexpr Kind kRoles{stored_roles, vshd_perm_group_role_name_verify, SECURITY_ERR_UNKNOWN_ROLE,
                      SECURITY_ERR_ROLE_NOT_HELD, true};
constexpr Kind kLocales{stored_locales, vshd_perm_locale_name_verify, SECURITY_ERR_UNKNOWN_LOCALE,
                        SECURITY_ERR_LOCALE_NOT_HELD, false};

uint32_t read(const Kind& kind, uint32_t store, NameList& list) {
    NameList found{};
    copy_field(found.user_name, list.user_name);
    const uint32_t status = kind.stored(store, GET_REQ, &found);
    if (status != SECURITY_OK && status != SECURITY_ERR_NOT_FOUND) return status;
    if (status == SECURITY_ERR_NOT_FOUND) found.count = 0;
    found.count = std::clamp(found.count, 0, kMostNames);
    list = found;
    return SECURITY_OK;
}

// A walk over all users asks by stored names. One of this context is the plain name's, and the accounts of
// other contexts have no lists here.
uint32_t read_of_any(const Kind& kind, uint32_t store, NameList& list) {
    const bool here = vdc_getpwnam(list.user_name) != nullptr;
    if (!here && getpwnam(list.user_name) == nullptr && getspnam(list.user_name) == nullptr)
        return SECURITY_ERR_NOT_FOUND;
    if (here) return read(kind, store, list);
    const size_t length = strlen(list.user_name);
    const bool own = length > kSuffix && list.user_name[length - 1] == '#' &&
                     security_get_vdc_from_username(list.user_name) == sysmgrcmn_vdc_id_get();
    if (!own) {
        list.count = 0;
        memset(list.names, 0, sizeof list.names);
        return SECURITY_OK;
    }
    NameList plain = list;
    memset(plain.user_name + length - kSuffix, 0, kSuffix);
    const uint32_t status = read(kind, store, plain);
    copy_field(plain.user_name, list.user_name);
    list = plain;
    return status;
}

// The handler leaves the count as the store has it.
uint32_t write(const Kind& kind, uint32_t store, NameList& list) {
    const int32_t count = list.count;
    const uint32_t status = kind.stored(store, SET_REQ, &list);
    list.count = count;
    return status;
}

uint32_t replace(const Kind& kind, uint32_t store, NameList& list) {
    NameList clean{};
    copy_field(clean.user_name, list.user_name);
    clean.count = list.count;
    for (int32_t i = 0; i < list.count; ++i) {
        if (!terminated(list.names[i])) return SECURITY_ERR_REQUEST_TEXT;
        if (kind.verify(0, list.names[i]) != 0) return kind.unknown;
        copy_field(clean.names[i], list.names[i]);
    }
    list = clean;
    return write(kind, store, list);
}

uint32_t take_out(const Kind& kind, uint32_t store, NameList& list) {
    if (list.count != 1) return SECURITY_ERR_REQUEST_COUNT;
    if (!terminated(list.names[0])) return SECURITY_ERR_REQUEST_TEXT;
    NameList held = list;
    const uint32_t status = read(kind, store, held);
    if (status != SECURITY_OK) return status;
    auto* const end = held.names + held.count;
    auto* const found = std::find_if(held.names, end, [&list](const char(&name)[65]) {
        return strncmp(name, list.names[0], sizeof name) == 0;
    });
    if (found == end) return kind.not_held;
    memmove(found, found + 1, static_cast<size_t>(end - found - 1) * sizeof *found);
    --held.count;
    return write(kind, store, held);
}

uint32_t serve(const Kind& kind, uint32_t store, uint32_t operation, NameList& list) {
    if (operation == GETNEXT_REQ)
        return kind.walked ? kind.stored(store, operation, &list) : SECURITY_ERR_NOT_SUPPORTED;
    if (operation == GET_REQ) return read_of_any(kind, store, list);
    // A repair would write the list of before over this change, or take the account away.
    if (!repair_accounts(store)) return SECURITY_ERR_ACCOUNT_REPAIR;
    if (vdc_getpwnam(list.user_name) == nullptr) return SECURITY_ERR_NOT_FOUND;
    switch (operation) {
    case SET_REQ:
        return replace(kind, store, list);
    case DEL_REQ:
        return take_out(kind, store, list);
    }
    return SECURITY_ERR_NOT_SUPPORTED;
}

// Roles alone are what a change of a user is told with.
void announce(uint32_t store, const NameList& list) {
    security_user_roles now{};
    copy_field(now.user_name, list.user_name);
    if (security_user_roles_config(store, GET_REQ, &now) != SECURITY_OK) now.num_roles = 0;
    announce_user_change(SECURITY_USER_MODIFIED, now.user_name, now);
}

}  // namespace

uint32_t role_list(uint32_t store, uint32_t operation, void* record) {
    auto& list = *static_cast<NameList*>(record);
    const uint32_t status = serve(kRoles, store, operation, list);
    if (status == SECURITY_OK && (operation == SET_REQ || operation == DEL_REQ)) announce(store, list);
    return status;
}

uint32_t locale_list(uint32_t store, uint32_t operation, void* record) {
    return serve(kLocales, store, operation, *static_cast<NameList*>(record));
}

}  // namespace quill
