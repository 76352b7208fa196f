#include "daemon/account_records.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "base/context_name.h"
#include "base/name_list.h"
#include "base/store_key.h"
#include "base/tables.h"
#include "base/text_field.h"
#include "daemon/account_files.h"
#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillplatform/sysmgr.h"

namespace quill {
namespace {

constexpr size_t kMostOrphans = 25;

// Walked by key here, since the handlers of locales and SSH keys would walk on into other tables.
constexpr uint32_t kTablesOfUsers[] = {kRolesTable, kLocalesTable, kSshKeysTable, kSshKeyFilesTable};

template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t drop(uint32_t store, const char* user, uint32_t* dropped, uint32_t type = 0) {
    Record record{};
    set_text(record.user_name, user);
    if constexpr (std::is_same_v<Record, security_user>) record.user_type = type;
    const uint32_t status = handler(store, DEL_REQ, &record);
    if (status == SECURITY_OK && dropped != nullptr) ++*dropped;
    return status == SECURITY_ERR_NOT_FOUND || status == SECURITY_PSS_NO_KEY ? SECURITY_OK : status;
}

// Adds users of the table who have no account. Stops when there are enough of them. Returns false if an
// account could not be looked up or the store could not be read.
bool collect_orphans(uint32_t store, uint32_t table, std::set<std::string>& orphans) {
    char user[kNameField] = "";
    const Key key(table, user);
    const pss_descriptor start = key.descriptor();
    uint32_t status = SECURITY_OK;
    const pss_descriptor* found = security_pss_move2key(store, &start, &status);
    while (orphans.size() < kMostOrphans && key.read_name(found, user)) {
        // A plain name is that of an account of this context; a qualified one, which only SSH keys have,
        // names its context.
        const bool qualified = context_of(user) != kDefaultContext;
        const AccountNames account = find_account(qualified ? user : security_get_system_username(user));
        if (!account.known) return false;
        if (*user != '\0' && !account.passwd && !account.shadow) orphans.insert(user);
        found = security_pss_move2location(store, PSS_NEXT, &status);
    }
    return status == SECURITY_OK || status == SECURITY_PSS_NO_KEY;
}

}  // namespace

void make_plain(char (&name)[128]) {
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context == kDefaultContext || !terminated(name)) return;
    if (!has_context_suffix(name) || context_of(name) != context) return;
    memset(name + strlen(name) - kContextSuffix, '\0', kContextSuffix);
}

uint32_t read_roles(uint32_t store, const char* user, security_user_roles& list) {
    list = {};
    set_text(list.user_name, user);
    const uint32_t status = security_user_roles_config(store, GET_REQ, &list);
    list.num_roles = status == SECURITY_OK ? std::clamp(list.num_roles, 0, kMostNames) : 0;
    terminate_names(list.roles);
    return status;
}

uint32_t add_roles(uint32_t store, const security_user_manage& wish) {
    if (wish.num_roles == 0) return SECURITY_OK;
    security_user_roles list;
    const uint32_t status = read_roles(store, wish.user_name, list);
    if (status != SECURITY_OK && status != SECURITY_ERR_NOT_FOUND) return status;
    for (const NameSlot& role : names_in_use(wish.num_roles, wish.roles)) {
        if (find_name(names_in_use(list.num_roles, list.roles), role) >= 0) continue;
        if (list.num_roles == kMostNames) return SECURITY_ERR_TOO_MANY_ROLES;
        copy_field(list.roles[list.num_roles++], role);
    }
    return security_user_roles_config(store, SET_REQ, &list);
}

uint32_t drop_roles(uint32_t store, const char* user) {
    return drop<security_user_roles, security_user_roles_config>(store, user, nullptr);
}

uint32_t drop_records(uint32_t store, const char* user, uint32_t* dropped) {
    uint32_t status = drop<security_user_roles, security_user_roles_config>(store, user, dropped);
    const auto then = [&status](uint32_t next) {
        if (status == SECURITY_OK) status = next;
    };
    then(drop<security_user_locales, security_user_locales_config>(store, user, dropped));
    then(drop<ssh_key_rec, security_user_ssh_key_config>(store, user, dropped));
    then(drop<ssh_key_new_rec, security_user_ssh_key_new_config>(store, user, dropped));
    for (const uint32_t type : {0u, 1u})
        then(drop<security_user, security_user_config>(store, user, dropped, type));
    return status;
}

uint32_t drop_orphans(uint32_t store, uint32_t operation, void* record) {
    auto& result = *static_cast<security_orphans*>(record);
    result.dropped = 0;
    if (operation != DEL_REQ) return SECURITY_ERR_NOT_SUPPORTED;
    std::set<std::string> orphans;
    for (const uint32_t table : kTablesOfUsers)
        if (!collect_orphans(store, table, orphans)) return SECURITY_ERR_FILE_READ;
    uint32_t status = SECURITY_OK;
    for (const std::string& user : orphans) {
        if (status == SECURITY_OK) status = drop_records(store, user.c_str(), &result.dropped);
        syslog(LOG_NOTICE, "records of '%s', who has no account, dropped: %s", log_safe(user).c_str(),
               syserr2str(status));
    }
    return status;
}

}  // namespace quill
