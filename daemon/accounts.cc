#include "daemon/accounts.h"

#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/byte_order.h"
#include "common/name_list.h"
#include "common/text_field.h"
#include "daemon/announce.h"
#include "daemon/tool.h"
#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kHomes[] = "/bootflash/home";
constexpr size_t kLongestName = 31;  // of a stored name: what useradd(8) and the removal of a context take
constexpr int kKilled = 127;         // from here on a program did not end by its own decision

std::string home_of(const char* stored) { return std::string(kHomes) + "/" + stored; }

// ------------------------------------------------------------------------------------------------- look-ups

// What the account files and the disk have under a name.
struct Traces {
    bool known = true;  // false: something could not be looked up, and the rest means nothing
    bool passwd = false, shadow = false, group = false, home = false;
    bool ours = false;  // an account with the home that this daemon gives

    bool none() const { return known && !passwd && !shadow && !group && !home; }
};

// Whether a look-up that found nothing did so because it could not look.
bool failed(int error) {
    return error == EMFILE || error == ENFILE || error == EIO || error == ENOMEM || error == EACCES;
}

template <class LookUp>
auto look_up(LookUp by_name, const char* name, Traces& traces) -> decltype(by_name(name)) {
    errno = 0;
    auto* found = by_name(name);
    if (found == nullptr && failed(errno)) traces.known = false;
    return found;
}

Traces traces_of(const char* stored) {
    Traces traces;
    traces.shadow = look_up(getspnam, stored, traces) != nullptr;
    traces.group = look_up(getgrnam, stored, traces) != nullptr;
    const passwd* account = look_up(getpwnam, stored, traces);
    const std::string home = home_of(stored);
    traces.passwd = account != nullptr;
    traces.ours = account != nullptr && home == account->pw_dir && account->pw_uid != 0;
    struct stat facts;
    traces.home = lstat(home.c_str(), &facts) == 0;
    return traces;
}

// ---------------------------------------------------------------------------------------- what is under way

enum class Work : uint32_t { kCreate = 1, kModify = 2, kDelete = 3 };

// The note in the store, for this daemon's successor on the same machine: words in host order. Of an account
// to be created nothing was there before.
struct Pending {
    Work work;
    char user[128];  // plain name
    char stored[132];
    // What kModify found, to go back to.
    int32_t expiry_days;
    int32_t changed_days;  // when the password was changed last
    char password[512];    // stored form
    int32_t had_roles;     // whether there was a list of them
    security_user_roles roles;

    Pending() { memset(static_cast<void*>(this), 0, sizeof *this); }
    ~Pending() { OPENSSL_cleanse(password, sizeof password); }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
};

// The note's key stands behind all tables of records.
uint32_t pending_table = big_endian(0x10000);
const pss_descriptor kPendingKey{&pending_table, sizeof pending_table};

uint32_t begin(uint32_t store, Pending& pending) {
    const pss_descriptor value{&pending, sizeof pending};
    return pss2_store(store, &kPendingKey, &value);
}

// SECURITY_PSS_NO_KEY when nothing is under way.
uint32_t find_pending(uint32_t store, Pending& pending) {
    uint32_t status = SECURITY_OK;
    const pss_descriptor* found = pss2_fetch(store, &kPendingKey, &status);
    if (status != SECURITY_OK) return status;
    if (found == nullptr || found->length != sizeof pending) return SECURITY_ERR_REQUEST_SIZE;
    memcpy(static_cast<void*>(&pending), found->bytes, sizeof pending);
    terminate(pending.user);
    terminate(pending.stored);
    terminate(pending.password);
    return SECURITY_OK;
}

// The files that programs renamed are on the disk before the note goes.
uint32_t end(uint32_t store) {
    const int folder = open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);
        close(folder);
    }
    return pss2_delete(store, &kPendingKey, 1);
}

// ------------------------------------------------------------------------------------------------ programs

// Held by every program that changes accounts, so that a successor can wait for those of a dead daemon.
int account_lock() {
    static const int kLock = [] {
        const std::string path = runtime_directory() + "/accounts.lock";
        return open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    }();
    return kLock;
}

class AccountLock {
 public:
    AccountLock() { flock(account_lock(), LOCK_EX); }
    ~AccountLock() { flock(account_lock(), LOCK_UN); }
    AccountLock(const AccountLock&) = delete;
    AccountLock& operator=(const AccountLock&) = delete;
};

ToolResult account_tool(std::initializer_list<const char*> words, std::string_view input = {}) {
    return run_tool(words, input, account_lock());
}

ToolResult make_account(const char* stored, const std::string& expiry) {
    mkdir("/bootflash", 0755);
    mkdir(kHomes, 0755);
    // The name was checked here; '#' is none of useradd's letters.
    return account_tool({"/usr/sbin/useradd", "--badname", "--create-home", "--home-dir",
                         home_of(stored).c_str(), "--expiredate", expiry.c_str(), "--", stored});
}

ToolResult remove_account(const char* stored) {
    return account_tool({"/usr/sbin/userdel", "--remove", "--", stored});
}

ToolResult set_expiry(const char* stored, const std::string& expiry) {
    return account_tool({"/usr/sbin/usermod", "--expiredate", expiry.c_str(), "--", stored});
}

// "NAME:PASSWORD" on standard input, wiped afterwards.
class PasswordLine {
 public:
    PasswordLine(const char* stored, const char* password) {
        length_ = static_cast<size_t>(snprintf(line_, sizeof line_, "%s:%s\n", stored, password));
    }
    ~PasswordLine() { OPENSSL_cleanse(line_, sizeof line_); }
    PasswordLine(const PasswordLine&) = delete;
    PasswordLine& operator=(const PasswordLine&) = delete;

    std::string_view text() const { return {line_, std::min(length_, sizeof line_ - 1)}; }

 private:
    char line_[1024];
    size_t length_;
};

ToolResult set_stored_password(const char* stored, const char* password) {
    return account_tool({"/usr/sbin/chpasswd", "--encrypted"}, PasswordLine(stored, password).text());
}

ToolResult set_clear_password(const char* stored, const char* password) {
    return account_tool({"/usr/sbin/chpasswd"}, PasswordLine(stored, password).text());
}

// -------------------------------------------------------------------------------------------------- checks

// A portable user name (useradd(8), "CAVEATS"), which no program takes for anything else.
bool is_portable(const char* name) {
    constexpr char kFirst[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    constexpr char kRest[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789.-";
    return *name != '\0' && strchr(kFirst, *name) != nullptr && name[strspn(name, kRest)] == '\0';
}

// The name that the account files have for a plain one; false where none of this daemon's accounts can have
// it.
bool to_stored(const char* user, char (&stored)[132]) {
    if (!is_portable(user) || is_internal_user(user) == 1) return false;
    set_text(stored, security_get_system_username(user));
    return strlen(stored) <= kLongestName;
}

// One field of a line of the shadow file, shadow(5).
bool is_stored_password(const char* text) {
    return std::all_of(text, text + strlen(text), [](char c) { return c > ' ' && c < 127 && c != ':'; });
}

// "%d-%d-%d" as the day that the tools and the shadow file count; empty for a text that is no date to come
// after the first of them.
std::string day_of(const char* text) {
    using namespace std::chrono;
    int year = 0, month = 0, day = 0, length = 0;
    // NOLINTNEXTLINE(cert-err34-c): of so few digits that every number fits
    if (sscanf(text, "%5d-%3d-%3d%n", &year, &month, &day, &length) != 3 || text[length] != '\0') return "";
    if (year < 1970 || year > 2037 || month < 1 || month > 12 || day < 1 || day > 31) return "";
    const year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    const auto days_since = sys_days(date).time_since_epoch().count();
    return date.ok() && days_since > 0 ? std::to_string(days_since) : "";
}

// A field of the shadow file, where -1 is an empty one.
std::string day_of(int32_t days) { return days < 0 ? "" : std::to_string(days); }

uint32_t check_roles(const security_user_manage& wish) {
    for (int32_t i = 0; i < wish.num_roles; ++i) {
        if (!terminated(wish.roles[i])) return SECURITY_ERR_REQUEST_TEXT;
        if (vshd_perm_group_role_name_verify(0, wish.roles[i]) != 0) return SECURITY_ERR_UNKNOWN_ROLE;
    }
    return SECURITY_OK;
}

// ------------------------------------------------------------------------------------ records of an account

template <class Record, uint32_t (*handler)(uint32_t, uint32_t, Record*)>
uint32_t drop(uint32_t store, const char* user, uint32_t type = 0) {
    Record record{};
    set_text(record.user_name, user);
    if constexpr (std::is_same_v<Record, security_user>) record.user_type = type;
    const uint32_t status = handler(store, DEL_REQ, &record);
    return status == SECURITY_ERR_NOT_FOUND || status == SECURITY_PSS_NO_KEY ? SECURITY_OK : status;
}

// All that the store keeps of a user.
uint32_t drop_records(uint32_t store, const char* user) {
    uint32_t status = drop<security_user_roles, security_user_roles_config>(store, user);
    const auto then = [&status](uint32_t next) {
        if (status == SECURITY_OK) status = next;
    };
    then(drop<security_user_locales, security_user_locales_config>(store, user));
    then(drop<ssh_key_rec, security_user_ssh_key_config>(store, user));
    then(drop<ssh_key_new_rec, security_user_ssh_key_new_config>(store, user));
    for (const uint32_t type : {0u, 1u}) then(drop<security_user, security_user_config>(store, user, type));
    return status;
}

// SECURITY_ERR_NOT_FOUND, with an empty list, where none is stored.
uint32_t read_roles(uint32_t store, const char* user, security_user_roles& list) {
    list = {};
    set_text(list.user_name, user);
    const uint32_t status = security_user_roles_config(store, GET_REQ, &list);
    list.num_roles = status == SECURITY_OK ? std::clamp(list.num_roles, 0, kMostNames) : 0;
    for (auto& role : list.roles) terminate(role);
    return status;
}

uint32_t add_roles(uint32_t store, const security_user_manage& wish) {
    if (wish.num_roles == 0) return SECURITY_OK;
    security_user_roles list;
    const uint32_t status = read_roles(store, wish.user_name, list);
    if (status != SECURITY_OK && status != SECURITY_ERR_NOT_FOUND) return status;
    for (int32_t i = 0; i < wish.num_roles; ++i) {
        const auto same = [&](const char(&held)[65]) { return strcmp(held, wish.roles[i]) == 0; };
        if (std::any_of(list.roles, list.roles + list.num_roles, same)) continue;
        if (list.num_roles == kMostNames) return SECURITY_ERR_TOO_MANY_ROLES;
        copy_field(list.roles[list.num_roles++], wish.roles[i]);
    }
    return security_user_roles_config(store, SET_REQ, &list);
}

// ------------------------------------------------------------------------------------------------- changes

// What came of a step: the status to answer, and what the client is told of a failing one.
uint32_t tell(security_user_manage& answer, const ToolResult& result) {
    if (result.ok()) return SECURITY_OK;
    answer.return_code = result.code;
    set_text(answer.error, result.errors.c_str());
    return SECURITY_ERR_ACCOUNT_TOOL;
}

// Takes away whatever there is of an account of ours. False where something stays.
bool wipe_account(const char* stored) {
    Traces traces = traces_of(stored);
    if (!traces.known) return false;
    if (traces.ours) remove_account(stored);
    traces = traces_of(stored);
    if (traces.known && !traces.passwd && traces.group) account_tool({"/usr/sbin/groupdel", "--", stored});
    if (traces.known && !traces.passwd && traces.home)
        account_tool({"/bin/rm", "-rf", "--", home_of(stored).c_str()});
    return traces_of(stored).none();
}

bool undo_create(uint32_t store, const Pending& pending) {
    return wipe_account(pending.stored) && drop_records(store, pending.user) == SECURITY_OK;
}

uint32_t restore_roles(uint32_t store, const Pending& pending) {
    if (!pending.had_roles) return drop<security_user_roles, security_user_roles_config>(store, pending.user);
    security_user_roles list = pending.roles;
    return security_user_roles_config(store, SET_REQ, &list);
}

bool undo_modify(uint32_t store, const Pending& pending) {
    const Traces traces = traces_of(pending.stored);
    if (!traces.known) return false;
    if (!traces.passwd) return drop_records(store, pending.user) == SECURITY_OK;  // removed by somebody else
    const bool password = set_stored_password(pending.stored, pending.password).ok();
    const bool dates = set_expiry(pending.stored, day_of(pending.expiry_days)).ok() &&
                       account_tool({"/usr/bin/chage", "--lastday",
                                     std::to_string(pending.changed_days).c_str(), "--", pending.stored})
                           .ok();
    return restore_roles(store, pending) == SECURITY_OK && password && dates;
}

// A deletion is finished, unless userdel refuses to: then nothing has been done.
bool finish_delete(uint32_t store, const Pending& pending) {
    const Traces traces = traces_of(pending.stored);
    if (!traces.known) return false;
    if (traces.ours) {
        const ToolResult removed = remove_account(pending.stored);
        if (removed.code >= kKilled) return false;
        if (!removed.ok() && traces_of(pending.stored).passwd) {
            syslog(LOG_ERR, "account '%s' stays: %s", pending.stored, removed.errors.c_str());
            return true;
        }
    }
    return wipe_account(pending.stored) && drop_records(store, pending.user) == SECURITY_OK;
}

bool repair(uint32_t store, const Pending& pending) {
    switch (pending.work) {
    case Work::kCreate:
        syslog(LOG_WARNING, "creating account '%s' was interrupted: undoing it", pending.stored);
        return undo_create(store, pending);
    case Work::kModify:
        syslog(LOG_WARNING, "changing account '%s' was interrupted: undoing it", pending.stored);
        return undo_modify(store, pending);
    case Work::kDelete:
        syslog(LOG_WARNING, "deleting account '%s' was interrupted: finishing it", pending.stored);
        return finish_delete(store, pending);
    }
    return false;
}

// False while an earlier change is neither undone nor finished: nothing new is begun then.
bool repaired(uint32_t store) {
    Pending pending;
    const uint32_t status = find_pending(store, pending);
    if (status == SECURITY_PSS_NO_KEY) return true;
    if (status == SECURITY_OK && repair(store, pending) && end(store) == SECURITY_OK) return true;
    syslog(LOG_ERR, "account '%s' could not be repaired; account changes wait for it", pending.stored);
    return false;
}

// The end of a change that may still be taken back: it is, where the note of it cannot be taken away.
template <class Undo>
uint32_t conclude(uint32_t store, uint32_t status, Undo undo) {
    if (status == SECURITY_OK) status = end(store);
    if (status == SECURITY_OK || !undo()) return status;
    end(store);
    return status;
}

uint32_t refuse_leftover(security_user_manage& answer, const Traces& traces) {
    answer.return_code = 9;  // as useradd(8) has it
    snprintf(answer.error, sizeof answer.error, "useradd: a %s of this name exists already\n",
             traces.group  ? "group"
             : traces.home ? "home"
                           : "shadow entry");
    return SECURITY_ERR_ACCOUNT_TOOL;
}

uint32_t create(uint32_t store, security_user_manage& wish, Pending& pending, const std::string& expiry) {
    pending.work = Work::kCreate;
    uint32_t status = begin(store, pending);
    if (status != SECURITY_OK) return status;
    // Lists that an account of this name left behind would give the new one its rights.
    status = drop_records(store, pending.user);
    if (status == SECURITY_OK) status = tell(wish, make_account(pending.stored, expiry));
    if (status == SECURITY_OK && wish.password[0] != '\0')
        status = tell(wish, set_stored_password(pending.stored, wish.password));
    if (status == SECURITY_OK) status = add_roles(store, wish);
    return conclude(store, status, [&] { return undo_create(store, pending); });
}

uint32_t modify(uint32_t store, security_user_manage& wish, Pending& pending, const std::string& expiry) {
    const spwd* entry = getspnam(pending.stored);
    if (entry == nullptr || strlen(entry->sp_pwdp) >= sizeof pending.password) return SECURITY_ERR_NOT_FOUND;
    pending.work = Work::kModify;
    set_text(pending.password, entry->sp_pwdp);
    pending.expiry_days = static_cast<int32_t>(std::clamp<long>(entry->sp_expire, -1, INT32_MAX));
    pending.changed_days = static_cast<int32_t>(std::clamp<long>(entry->sp_lstchg, -1, INT32_MAX));
    uint32_t status = read_roles(store, pending.user, pending.roles);
    if (status != SECURITY_OK && status != SECURITY_ERR_NOT_FOUND) return status;
    pending.had_roles = status == SECURITY_OK;
    status = begin(store, pending);
    if (status != SECURITY_OK) return status;

    const bool with_password = wish.password[0] != '\0';
    const bool with_expiry = !expiry.empty() || !with_password;
    if (with_expiry) {
        const ToolResult dated = set_expiry(pending.stored, expiry);
        status = tell(wish, dated);
        if (!dated.ok() && dated.code < kKilled) {  // a refusal: there is nothing to undo
            end(store);
            return status;
        }
    } else {
        status = SECURITY_OK;
    }
    if (status == SECURITY_OK && with_password)
        status = tell(wish, set_stored_password(pending.stored, wish.password));
    if (status == SECURITY_OK) status = add_roles(store, wish);
    return conclude(store, status, [&] { return undo_modify(store, pending); });
}

uint32_t remove(uint32_t store, security_user_manage& wish, Pending& pending) {
    pending.work = Work::kDelete;
    uint32_t status = begin(store, pending);
    if (status != SECURITY_OK) return status;
    const ToolResult removed = remove_account(pending.stored);
    if (traces_of(pending.stored).passwd) {
        if (removed.code < kKilled) end(store);  // userdel refused, and changed nothing
        return tell(wish, removed.ok() ? ToolResult{1, removed.errors} : removed);
    }
    // From here on it is done; what the note still asks for is done again before the next change.
    if (!wipe_account(pending.stored)) return SECURITY_ERR_ACCOUNT_REPAIR;
    status = drop_records(store, pending.user);
    if (status == SECURITY_OK) end(store);
    return status;
}

// Listeners learn of every change, with the roles that the user holds after it.
void announce(uint32_t store, uint32_t type, const char* user) {
    security_user_roles roles;
    read_roles(store, user, roles);
    announce_user_change(type, user, roles);
}

uint32_t change(uint32_t store, uint32_t operation, security_user_manage& wish, uint32_t& what) {
    if (operation != SET_REQ && operation != DEL_REQ) return SECURITY_ERR_NOT_SUPPORTED;
    Pending pending;
    copy_field(pending.user, wish.user_name);
    if (!to_stored(wish.user_name, pending.stored)) return SECURITY_ERR_USER_NAME;
    if (!repaired(store)) return SECURITY_ERR_ACCOUNT_REPAIR;
    const Traces traces = traces_of(pending.stored);
    if (!traces.known) return SECURITY_ERR_ACCOUNT_TOOL;
    if (traces.passwd && !traces.ours) return SECURITY_ERR_USER_NAME;
    what = operation == DEL_REQ ? SECURITY_USER_DELETED
           : traces.passwd      ? SECURITY_USER_MODIFIED
                                : SECURITY_USER_ADDED;
    if (operation == DEL_REQ) return traces.passwd ? remove(store, wish, pending) : SECURITY_ERR_NOT_FOUND;

    const std::string expiry = day_of(wish.expiry);
    if (wish.expiry[0] != '\0' && expiry.empty()) return SECURITY_ERR_EXPIRY_DATE;
    if (!is_stored_password(wish.password)) return SECURITY_ERR_PASSWORD_TEXT;
    const uint32_t status = check_roles(wish);
    if (status != SECURITY_OK) return status;
    if (traces.passwd) return modify(store, wish, pending, expiry);
    return traces.none() ? create(store, wish, pending, expiry) : refuse_leftover(wish, traces);
}

uint32_t change_password_of(uint32_t store, security_passwd& wish) {
    char stored[132];
    if (!to_stored(wish.user_name, stored)) return SECURITY_ERR_USER_NAME;
    if (!repaired(store)) return SECURITY_ERR_ACCOUNT_REPAIR;  // which may take the account away
    const Traces traces = traces_of(stored);
    if (!traces.known) return SECURITY_ERR_ACCOUNT_TOOL;
    if (!traces.passwd) return SECURITY_ERR_NOT_FOUND;
    if (!traces.ours) return SECURITY_ERR_USER_NAME;
    if (wish.password[0] == '\0' || strpbrk(wish.password, "\r\n") != nullptr)
        return SECURITY_ERR_PASSWORD_TEXT;
    const ToolResult result = set_clear_password(stored, wish.password);
    if (!result.ok()) set_text(wish.error, result.errors.c_str());
    return result.ok() ? SECURITY_OK : SECURITY_ERR_ACCOUNT_TOOL;
}

// A failure of ours in the form that clients know from the tools.
template <size_t size>
void explain(char (&error)[size], const char* tool, uint32_t status) {
    if (status != SECURITY_OK && error[0] == '\0') snprintf(error, size, "%s%s\n", tool, syserr2str(status));
}

}  // namespace

bool repair_accounts(uint32_t store) {
    const AccountLock lock;
    return repaired(store);
}

uint32_t manage_account(uint32_t store, uint32_t operation, void* record) {
    auto& wish = *static_cast<security_user_manage*>(record);
    const AccountLock lock;
    set_text(wish.output, "");
    set_text(wish.error, "");
    wish.return_code = 0;
    uint32_t what = 0;
    const uint32_t status = change(store, operation, wish, what);
    if (status == SECURITY_OK) announce(store, what, wish.user_name);
    if (status != SECURITY_OK && wish.return_code == 0) wish.return_code = 1;
    explain(wish.error, operation == DEL_REQ ? "userdel: " : "useradd: ", status);
    OPENSSL_cleanse(wish.password, sizeof wish.password);
    return status;
}

uint32_t change_password(uint32_t store, uint32_t operation, void* record) {
    auto& wish = *static_cast<security_passwd*>(record);
    const AccountLock lock;
    set_text(wish.output, "");
    set_text(wish.error, "");
    const uint32_t status =
        operation == SET_REQ ? change_password_of(store, wish) : SECURITY_ERR_NOT_SUPPORTED;
    if (status == SECURITY_OK) announce(store, SECURITY_USER_PASSWORD_CHANGED, wish.user_name);
    explain(wish.error, "passwd: ", status);
    OPENSSL_cleanse(wish.password, sizeof wish.password);
    return status;
}

}  // namespace quill
