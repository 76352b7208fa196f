#include "daemon/user_lists.h"

#include <algorithm>
#include <cstring>

#include "base/context_name.h"
#include "base/name_list.h"
#include "base/text_field.h"
#include "daemon/account_files.h"
#include "daemon/account_records.h"
#include "daemon/accounts.h"
#include "daemon/announce.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// What differs between roles and locales, whose records have the same layout.
struct Kind {
    uint32_t (*stored)(uint32_t store, uint32_t operation, void* record);
    int32_t (*verify)(uint32_t connection, const char* name);
    uint32_t unknown;
    uint32_t not_held;
    bool has_walk;  // false for locales, whose handler would walk on into other tables
};

uint32_t stored_roles(uint32_t store, uint32_t operation, void* record) {
    return security_user_roles_config(store, operation, static_cast<security_user_roles*>(record));
}
uint32_t stored_locales(uint32_t store, uint32_t operation, void* record) {
    return security_user_locales_config(store, operation, static_cast<security_user_locales*>(record));
}

constexpr Kind kRoles{stored_roles, vshd_perm_group_role_name_verify, SECURITY_ERR_UNKNOWN_ROLE,
                      SECURITY_ERR_ROLE_NOT_HELD, true};
constexpr Kind kLocales{stored_locales, vshd_perm_locale_name_verify, SECURITY_ERR_UNKNOWN_LOCALE,
                        SECURITY_ERR_LOCALE_NOT_HELD, false};

// Reads a stored list. Returns SECURITY_ERR_NOT_FOUND if there is none; on failure `list` is unchanged.
uint32_t find(const Kind& kind, uint32_t store, NameList& list) {
    NameList found{};
    copy_field(found.user_name, list.user_name);
    const uint32_t status = kind.stored(store, GET_REQ, &found);
    if (status != SECURITY_OK) return status;
    found.count = std::clamp(found.count, 0, kMostNames);
    list = found;
    return SECURITY_OK;
}

// Reads a stored list, or an empty one if there is none.
uint32_t read(const Kind& kind, uint32_t store, NameList& list) {
    const uint32_t status = find(kind, store, list);
    if (status != SECURITY_ERR_NOT_FOUND) return status;
    list.count = 0;
    memset(list.names, 0, sizeof list.names);
    return SECURITY_OK;
}

// Reads the list of any user. Any client may ask for it, so an account is looked up, which takes longer, only
// if no list is stored. The name may be the stored one, as a walk over all users returns it; accounts of
// other contexts have empty lists here.
uint32_t read_of_any(const Kind& kind, uint32_t store, NameList& list) {
    NameList found = list;
    make_plain(found.user_name);
    const uint32_t status = find(kind, store, found);
    copy_field(found.user_name, list.user_name);
    if (status == SECURITY_OK) list = found;
    if (status != SECURITY_ERR_NOT_FOUND) return status;

    const AccountNames here = find_account(security_get_system_username(list.user_name));
    const AccountNames anywhere = find_account(list.user_name);
    if (!here.known || !anywhere.known) return SECURITY_ERR_FILE_READ;
    if (!here.passwd && !anywhere.passwd && !anywhere.shadow) return SECURITY_ERR_NOT_FOUND;
    list.count = 0;
    memset(list.names, 0, sizeof list.names);
    return SECURITY_OK;
}

// Stores the list. The handler leaves the count big-endian, as it is stored.
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

uint32_t remove_name(const Kind& kind, uint32_t store, NameList& list) {
    if (list.count != 1) return SECURITY_ERR_REQUEST_COUNT;
    if (!terminated(list.names[0])) return SECURITY_ERR_REQUEST_TEXT;
    NameList held = list;
    const uint32_t status = read(kind, store, held);
    if (status != SECURITY_OK) return status;
    const int32_t found = find_name(names_in_use(held.count, held.names), list.names[0]);
    if (found < 0) return kind.not_held;
    memmove(held.names + found, held.names + found + 1,
            static_cast<size_t>(held.count - found - 1) * sizeof(NameSlot));
    --held.count;
    return write(kind, store, held);
}

uint32_t serve(const Kind& kind, uint32_t store, uint32_t operation, NameList& list) {
    if (operation == GETNEXT_REQ)
        return kind.has_walk ? kind.stored(store, operation, &list) : SECURITY_ERR_NOT_SUPPORTED;
    if (operation == GET_REQ) return read_of_any(kind, store, list);
    const char* stored = security_get_system_username(list.user_name);
    if (context_of(stored) != sysmgrcmn_vdc_id_get()) return SECURITY_ERR_NOT_FOUND;  // of another context
    const AccountNames account = find_account(stored);
    if (!account.known) return SECURITY_ERR_FILE_READ;
    if (!account.passwd) return SECURITY_ERR_NOT_FOUND;
    switch (operation) {
    case SET_REQ:
        return replace(kind, store, list);
    case DEL_REQ:
        return remove_name(kind, store, list);
    }
    return SECURITY_ERR_NOT_SUPPORTED;
}

// Announces the user's roles after a change.
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
