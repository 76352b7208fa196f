// Handlers of the roles and the locales of users: one list of each for a user, stored as it is given.
//
// The two records have the same layout. The handlers differ in ways that callers depend on:
//
//                              roles                             locales
//   GET of an absent list      caller's count is byte-swapped    record unchanged
//   end of a walk              SECURITY_ERR_END_OF_TABLE         0, record unchanged
//   records that a walk finds  those of its table                whatever follows in the store
//   walk from an absent key    finds the key that follows        0, record unchanged
//   traces                     operations, roles and statuses    operations and counts that were read
#include <cstring>

#include "base/byte_order.h"
#include "base/name_list.h"
#include "base/tables.h"
#include "base/text_field.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

using UserName = char[kNameField];

// The value: the count and the given number of the names that follow it.
Run value_of(int32_t& count, int32_t names = kMostNames) {
    return {&count, static_cast<uint32_t>(sizeof count + static_cast<size_t>(names) * sizeof(NameSlot))};
}

// Zeroes the slots behind the names that a list read from the store counts. Its count is big-endian.
void clear_unused(int32_t stored_count, NameSlot* names) {
    int32_t count = stored_count;
    flip(count);
    if (count >= 0 && count < kMostNames)
        memset(names + count, 0, static_cast<size_t>(kMostNames - count) * sizeof(NameSlot));
}

// Stores the list and leaves its count big-endian. Returns SECURITY_ERR_REQUEST_COUNT, with nothing changed,
// for a count outside 0 to 64.
uint32_t store_list(uint32_t handle, const Key& key, int32_t& count) {
    if (count < 0 || count > kMostNames) return SECURITY_ERR_REQUEST_COUNT;
    const Run value = value_of(count, count);
    flip(count);
    return store(handle, key, value);
}

// ------------------------------------------------------------------------------------------------- roles

uint32_t set_roles(uint32_t handle, const Key& key, const UserName& user, security_user_roles& list) {
    trace("SET for user:%s, %d roles", user, list.num_roles);
    for (const NameSlot& name : names_in_use(list.num_roles, list.roles)) {
        NameSlot role;
        copy_field(role, name);
        trace("%s:role is %s", "security_user_roles_config", role);
    }
    return store_list(handle, key, list.num_roles);
}

uint32_t serve(uint32_t handle, uint32_t operation, const UserName& user, security_user_roles& list) {
    const Key key(kRolesTable, user);
    switch (operation) {
    case GET_REQ:
        trace("GET for user:%s roles", user);
        return no_key_as(SECURITY_ERR_NOT_FOUND, fetch(handle, key, value_of(list.num_roles)));
    case GETNEXT_REQ:
        trace("GETNEXT for user:%s roles", user);
        return fetch_next(handle, key, list.user_name, value_of(list.num_roles), SECURITY_ERR_END_OF_TABLE);
    case SET_REQ:
        return set_roles(handle, key, user, list);
    case DEL_REQ:
        trace("DELETE for user:%s roles", user);
        return no_key_as(SECURITY_ERR_NOT_FOUND, erase(handle, key));
    }
    return SECURITY_OK;
}

// ----------------------------------------------------------------------------------------------- locales

// Completes a list that was read from the store.
void finish_locales(security_user_locales& list) {
    clear_unused(list.num_locales, list.locales);
    flip(list.num_locales);
}

uint32_t get_locales(uint32_t handle, const Key& key, const UserName& user, security_user_locales& list) {
    trace("GET for user:%s locales", user);
    const uint32_t status = fetch(handle, key, value_of(list.num_locales));
    if (status == SECURITY_OK) {
        finish_locales(list);
        trace("GET num_locales %d", list.num_locales);
        return status;
    }
    if (status == SECURITY_PSS_NO_KEY) trace("User not present");
    trace("rcode != SUCCESS GET num_locales %d", list.num_locales);
    return no_key_as(SECURITY_ERR_NOT_FOUND, status);
}

uint32_t next_locales(uint32_t handle, const Key& key, const UserName& user, security_user_locales& list) {
    trace("GETNEXT for user:%s locales", user);
    const pss_descriptor descriptor = key.descriptor();
    uint32_t status = SECURITY_OK;
    const pss_descriptor* found = security_pss_move2key(handle, &descriptor, &status);
    if (status == SECURITY_OK) found = security_pss_move2location(handle, PSS_NEXT, &status);
    if (status == SECURITY_PSS_NO_KEY || (status == SECURITY_OK && found == nullptr)) return SECURITY_OK;
    if (status == SECURITY_OK)
        status = read_found(handle, *found, list.user_name, value_of(list.num_locales));
    if (status == SECURITY_OK) finish_locales(list);
    return status;
}

uint32_t serve(uint32_t handle, uint32_t operation, const UserName& user, security_user_locales& list) {
    const Key key(kLocalesTable, user);
    switch (operation) {
    case GET_REQ:
        return get_locales(handle, key, user, list);
    case GETNEXT_REQ:
        return next_locales(handle, key, user, list);
    case SET_REQ:
        trace("SET for user:%s %d locales", user, list.num_locales);
        return store_list(handle, key, list.num_locales);
    case DEL_REQ:
        trace("DELETE for user:%s locales", user);
        return no_key_as(SECURITY_ERR_NOT_FOUND, erase(handle, key));
    }
    return SECURITY_OK;
}

}  // namespace
}  // namespace quill

uint32_t security_user_roles_config(uint32_t handle, uint32_t operation, security_user_roles* record) {
    using namespace quill;
    UserName user;
    copy_field(user, record->user_name);
    trace("In %s:", __func__);
    const uint32_t status = serve(handle, operation, user, *record);
    if (operation == GET_REQ || operation == GETNEXT_REQ) {
        if (status == SECURITY_OK) clear_unused(record->num_roles, record->roles);
        flip(record->num_roles);
    }
    trace("status for the operation:%s, desc %s", status_text(status), syserr2str(status));
    return status;
}

uint32_t security_user_locales_config(uint32_t handle, uint32_t operation, security_user_locales* record) {
    using namespace quill;
    UserName user;
    copy_field(user, record->user_name);
    return serve(handle, operation, user, *record);
}
