// quillsec user show: accounts, from the account files and the daemon.
#include <fmt/format.h>
#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "base/text_field.h"
#include "cli/exchange.h"
#include "cli/user.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

// The date of a shadow(5) entry; `entry` is null if it cannot be read.
Cell expiry_cell(const spwd* entry) {
    using namespace std::chrono;
    if (entry == nullptr) return {nullptr, "unknown"};
    if (entry->sp_expire < 0) return {nullptr, "never"};
    const auto days_since = static_cast<int>(std::min<long>(entry->sp_expire, 2932896));  // of year 9999
    const year_month_day date{sys_days{days{days_since}}};
    return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
}

Cell names_cell(int32_t request_type, const std::string& user) {
    std::vector<std::string> names;
    const uint32_t status = read_names(request_type, user, names);
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, user_object(user), "read");
    return {names, fmt::format("{}", fmt::join(names, ", "))};
}

template <class Record>
bool has_key_as(const std::string& user) {
    Record record{};
    set_text(record.user_name, user.c_str());
    const uint32_t status = ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &record, sizeof record);
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, user_object(user), "read");
    return status == SECURITY_OK;
}

// Looks for a key in either format. The library's own request for the second format is sent without the
// user's name, so it is not used here.
bool has_key(const std::string& user) {
    return has_key_as<ssh_key_rec>(user) || has_key_as<ssh_key_new_rec>(user);
}

struct Account {
    std::string name;
    uid_t uid;
    Cell expires;
};

std::vector<Cell> row(const Account& account) {
    const bool internal = is_internal_user(account.name.c_str()) == 1;
    const bool key = has_key(account.name);
    return {account.name,
            account.uid,
            static_cast<uint32_t>(sysmgrcmn_vdc_id_get()),
            account.expires,
            {internal, internal ? "internal" : ""},
            names_cell(SECURITY_ROLES_REQUEST, account.name),
            names_cell(SECURITY_LOCALE_ASSIGN_REQUEST, account.name),
            {key, key ? "set" : ""}};
}

Table table_of_users() {
    return {"users", {"name", "uid", "vdc", "expires", "internal", "roles", "locales", "key"}, {}};
}

// Reads both files once, however many accounts there are.
Answer show_all() {
    std::map<std::string, Cell> expiries;
    setspent();
    while (const spwd* entry = vdc_getspent()) expiries.emplace(entry->sp_namp, expiry_cell(entry));
    endspent();
    std::vector<Account> accounts;
    setpwent();
    while (const passwd* entry = vdc_getpwent()) {
        const auto found = expiries.find(entry->pw_name);
        accounts.push_back(
            {entry->pw_name, entry->pw_uid, found == expiries.end() ? expiry_cell(nullptr) : found->second});
    }
    endpwent();
    std::ranges::sort(accounts, [](const Account& a, const Account& b) {
        return security_conf_compare_username(a.name.c_str(), b.name.c_str()) < 0;
    });
    Table table = table_of_users();
    for (const Account& account : accounts) table.rows.push_back(row(account));
    return table;
}
}  // namespace

std::string user_object(const std::string& name) { return fmt::format("user '{}'", name); }

const std::string& checked_user(const std::string& name) {
    if (!name.empty() && name.size() < sizeof(common_user_record::name)) return name;
    throw Failure{Exit::kInvalidValue, user_object(name), user_object(name) + ": the name is not valid",
                  "use letters, digits, '_', '-' and '.', at most 31"};
}

Answer show_user(const std::string& name) {
    const passwd* entry = vdc_getpwnam(checked_user(name).c_str());
    require_success(entry == nullptr ? SECURITY_ERR_NOT_FOUND : SECURITY_OK, user_object(name), "read");
    const uid_t uid = entry->pw_uid;
    Table table = table_of_users();
    table.rows.push_back(row({name, uid, expiry_cell(vdc_getspnam(name.c_str()))}));
    return table;
}

Answer show_users(const Arguments& arguments) {
    const std::string* name = arguments.find("NAME");
    return name ? show_user(*name) : show_all();
}

}  // namespace quill::cli
