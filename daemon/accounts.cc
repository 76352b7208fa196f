#include "daemon/accounts.h"

#include <openssl/crypto.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "base/date.h"
#include "base/stored_password.h"
#include "base/text_field.h"
#include "daemon/account_changes.h"
#include "daemon/account_files.h"
#include "daemon/account_records.h"
#include "daemon/account_tools.h"
#include "daemon/announce.h"
#include "daemon/homes.h"
#include "quillplatform/pss.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kLongestName = 31;  // of a stored name, for useradd(8) and the removal of a context
constexpr std::chrono::milliseconds kHomeTime{500};  // to remove old homes within a request

// -------------------------------------------------------------------------------------------------- checks

// Whether it is a portable user name (useradd(8), "CAVEATS"), which no program takes for an option or a
// number.
bool is_portable(const char* name) {
    constexpr char kFirst[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    constexpr char kRest[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789.-";
    return *name != '\0' && strchr(kFirst, *name) != nullptr && name[strspn(name, kRest)] == '\0';
}

// Converts a plain name to the stored name. Returns false if no account of this daemon can have that name.
bool to_stored(const char* user, char (&stored)[kStoredName]) {
    if (!is_portable(user)) return false;
    set_text(stored, security_get_system_username(user));
    return strlen(stored) <= kLongestName;
}

// Converts an expiry date, "year-month-day", to days since 1970-01-01, which the account programs and the
// shadow file use. Returns "" for a text that is not a date from 1970-01-02 to 2037-12-31.
std::string day_of(const char* text) {
    using namespace std::chrono;
    const std::optional<Date> parsed = parse_date(text);
    if (!parsed) return "";
    const auto [year, month, day] = *parsed;
    if (year < 1970 || year > 2037 || month < 1 || month > 12 || day < 1 || day > 31) return "";
    const year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    const auto days_since = sys_days(date).time_since_epoch().count();
    return date.ok() && days_since > 0 ? std::to_string(days_since) : "";
}

uint32_t check_roles(const security_user_manage& wish) {
    for (int32_t i = 0; i < wish.num_roles; ++i) {
        if (!terminated(wish.roles[i])) return SECURITY_ERR_REQUEST_TEXT;
        if (vshd_perm_group_role_name_verify(0, wish.roles[i]) != 0) return SECURITY_ERR_UNKNOWN_ROLE;
    }
    return SECURITY_OK;
}

// Returns SECURITY_OK if the daemon may change the account, or create one of this name.
uint32_t check_owner(const char* user, const AccountRemains& remains) {
    if (!remains.known) return SECURITY_ERR_ACCOUNT_TOOL;
    if (remains.passwd) return remains.ours ? SECURITY_OK : SECURITY_ERR_OTHER_HOME;
    return is_internal_user(user) == 1 ? SECURITY_ERR_USER_NAME : SECURITY_OK;
}

uint32_t refuse_leftover(security_user_manage& answer, const char* stored, const AccountRemains& remains) {
    answer.return_code = 9;  // useradd(8)'s own status for this
    if (remains.group)
        set_text(answer.error, "useradd: a group of this name exists already\n");
    else
        snprintf(answer.error, sizeof answer.error,
                 "useradd: a home of this name exists already; move %s away first\n",
                 home_of(stored).c_str());
    return SECURITY_ERR_ACCOUNT_TOOL;
}

// ------------------------------------------------------------------------------------------------ requests

// Announces a change, with the roles that the user has after it.
void announce(uint32_t store, uint32_t type, const char* user) {
    security_user_roles roles;
    read_roles(store, user, roles);
    announce_user_change(type, user, roles);
}

// Sets `what` to the kind of change to announce.
uint32_t change(uint32_t store, uint32_t operation, security_user_manage& wish, uint32_t& what) {
    if (operation != SET_REQ && operation != DEL_REQ) return SECURITY_ERR_NOT_SUPPORTED;
    char stored[kStoredName];
    if (!to_stored(wish.user_name, stored)) return SECURITY_ERR_USER_NAME;
    if (!repair_pending(store)) return SECURITY_ERR_ACCOUNT_REPAIR;
    const AccountRemains remains = remains_of(stored);
    uint32_t status = check_owner(wish.user_name, remains);
    if (status != SECURITY_OK) return status;
    what = operation == DEL_REQ ? SECURITY_USER_DELETED
           : remains.passwd     ? SECURITY_USER_MODIFIED
                                : SECURITY_USER_ADDED;
    if (operation == DEL_REQ)
        return remains.passwd ? remove_account(store, wish, stored) : remove_leftover_lines(stored);

    const std::string expiry = day_of(wish.expiry);
    if (wish.expiry[0] != '\0' && expiry.empty()) return SECURITY_ERR_EXPIRY_DATE;
    if (wish.password[0] != '\0' && !verifiable_password(wish.password)) return SECURITY_ERR_PASSWORD_TEXT;
    status = check_roles(wish);
    if (status != SECURITY_OK) return status;
    if (remains.passwd) return modify_account(store, wish, stored, expiry);
    if (remains.group || remains.home) return refuse_leftover(wish, stored, remains);
    return create_account(store, wish, stored, expiry);
}

uint32_t change_password_of(uint32_t store, security_passwd& wish) {
    char stored[kStoredName];
    if (!to_stored(wish.user_name, stored)) return SECURITY_ERR_USER_NAME;
    if (!repair_pending(store)) return SECURITY_ERR_ACCOUNT_REPAIR;  // first: it may remove the account
    const AccountRemains remains = remains_of(stored);
    const uint32_t status = check_owner(wish.user_name, remains);
    if (status != SECURITY_OK) return status;
    if (!remains.passwd) return SECURITY_ERR_NOT_FOUND;
    if (wish.password[0] == '\0' || strpbrk(wish.password, "\r\n") != nullptr)
        return SECURITY_ERR_PASSWORD_TEXT;
    const AccountToolResult result = set_clear_password(stored, wish.password);
    if (result.ok()) return SECURITY_OK;
    set_text(wish.error, result.output.c_str());
    return result.files_locked ? SECURITY_ERR_ACCOUNTS_IN_USE : SECURITY_ERR_ACCOUNT_TOOL;
}

// If no program has set the error text, sets it to that of the status, in the form that programs use.
template <size_t size>
void explain(char (&error)[size], const char* tool, uint32_t status) {
    if (status != SECURITY_OK && error[0] == '\0') snprintf(error, size, "%s%s\n", tool, syserr2str(status));
}

}  // namespace

bool repair_accounts(uint32_t store) {
    if (nothing_is_pending(store)) return true;  // then no program of an earlier daemon is running either
    const AccountLock lock;
    return lock.held() && repair_pending(store);
}

uint32_t manage_account(uint32_t store, uint32_t operation, void* record) {
    auto& wish = *static_cast<security_user_manage*>(record);
    set_text(wish.output, "");
    set_text(wish.error, "");
    wish.return_code = 0;
    uint32_t what = 0;
    uint32_t status = SECURITY_ERR_ACCOUNTS_IN_USE;
    {
        const AccountLock lock;
        if (lock.held()) status = change(store, operation, wish, what);
    }
    if (status == SECURITY_OK) announce(store, what, wish.user_name);
    if (status != SECURITY_OK && wish.return_code == 0) wish.return_code = 1;
    explain(wish.error, operation == DEL_REQ ? "userdel: " : "useradd: ", status);
    OPENSSL_cleanse(wish.password, sizeof wish.password);
    if (operation == DEL_REQ) remove_old_homes(kHomeTime);
    return status;
}

uint32_t change_password(uint32_t store, uint32_t operation, void* record) {
    auto& wish = *static_cast<security_passwd*>(record);
    set_text(wish.output, "");
    set_text(wish.error, "");
    uint32_t status = SECURITY_ERR_NOT_SUPPORTED;
    if (operation == SET_REQ) {
        const AccountLock lock;
        status = lock.held() ? change_password_of(store, wish) : SECURITY_ERR_ACCOUNTS_IN_USE;
    }
    if (status == SECURITY_OK) announce(store, SECURITY_USER_PASSWORD_CHANGED, wish.user_name);
    explain(wish.error, "passwd: ", status);
    OPENSSL_cleanse(wish.password, sizeof wish.password);
    return status;
}

}  // namespace quill
