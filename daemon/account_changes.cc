#include "daemon/account_changes.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

#include "base/descriptor.h"
#include "base/text_field.h"
#include "base/wiped.h"
#include "daemon/account_locks.h"
#include "daemon/account_records.h"
#include "daemon/account_tools.h"
#include "daemon/homes.h"
#include "daemon/journal.h"
#include "platform/service.h"

namespace quill {
namespace {

// ------------------------------------------------------------------------------------------------ journal

enum class Work : uint32_t { kCreate = 1, kModify = 2, kDelete = 3 };

// The journal entry. The members after `stored` are the state before a kModify, to restore it.
struct PendingChange {
    Work work;
    char user[128];  // plain name
    char stored[kStoredName];
    int32_t expiry_days;
    int32_t changed_days;  // when the password was changed last
    char password[512];    // stored form
    int32_t had_roles;     // whether there was a list of them
    security_user_roles roles;
};

struct Pending : Wiped<PendingChange> {
    Pending() = default;
    Pending(Work what, const security_user_manage& wish, const char (&stored_name)[kStoredName]) {
        work = what;
        copy_field(user, wish.user_name);
        copy_field(stored, stored_name);
    }
};

Journal<Pending> journal(kAccountJournal);

// Erases the entry, after the account files that programs replaced are on disk.
uint32_t end(uint32_t store) {
    const Descriptor folder(open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) fsync(folder.get());
    return journal.erase(store);
}

// --------------------------------------------------------------------------------------------------- undo

// Returns the status for the result of a program, and sets the return code and the error text of a failure.
uint32_t tell(security_user_manage& answer, const AccountToolResult& result) {
    if (result.ok()) return SECURITY_OK;
    answer.return_code = result.code;
    set_text(answer.error, result.output.c_str());
    return result.files_locked ? SECURITY_ERR_ACCOUNTS_IN_USE : SECURITY_ERR_ACCOUNT_TOOL;
}

// Removes lines that were left when a program was killed between two of the files.
bool remove_all_lines(const char* stored, const AccountRemains& remains) {
    const std::pair<bool, AccountFile> lines[] = {{remains.shadow, AccountFile::kShadow},
                                                  {remains.gshadow && !remains.group, AccountFile::kGshadow},
                                                  {remains.subuid, AccountFile::kSubuid},
                                                  {remains.subgid, AccountFile::kSubgid}};
    bool removed = true;
    for (const auto& [there, file] : lines)
        if (there && !remove_lines(file, stored, after(kAccountLockTime))) removed = false;
    return removed;
}

// Returns true also if the group has become the primary group of another account, which keeps it.
bool remove_group(const char* stored) {
    const AccountToolResult removed = delete_group(stored);
    if (removed.ok()) return true;
    syslog(LOG_ERR, "group '%s' stays: %s", stored, log_safe(removed.output).c_str());
    return removed.code == kPrimaryGroup;
}

// Removes an account of the daemon with its group, lines, mail and home, and ends the user's processes if
// they prevent that. Returns false if it must be tried again; a home that cannot be removed is no reason for
// that.
bool remove_remains(const char* stored) {
    AccountRemains remains = remains_of(stored);
    if (!remains.known) return false;
    if (remains.ours && !delete_account(stored).ok()) {
        end_processes_of(remains.uid);
        const AccountToolResult removed = delete_account(stored);
        if (!removed.ok()) syslog(LOG_ERR, "account '%s': %s", stored, log_safe(removed.output).c_str());
    }
    remains = remains_of(stored);
    if (!remains.known || remains.passwd) return false;
    bool removed = !remains.group || remove_group(stored);
    remains = remains_of(stored);
    if (!remove_all_lines(stored, remains)) removed = false;
    remove_mail(stored);
    set_home_aside(stored);
    return removed;
}

bool undo_create(uint32_t store, const Pending& pending) {
    allow_time_to_undo();
    return remove_remains(pending.stored) && drop_records(store, pending.user) == SECURITY_OK;
}

uint32_t restore_roles(uint32_t store, const Pending& pending) {
    if (!pending.had_roles) return drop_roles(store, pending.user);
    security_user_roles list = pending.roles;
    return security_user_roles_config(store, SET_REQ, &list);
}

// Returns a date as a field of the shadow file.
std::string day_of(int32_t days) { return days < 0 ? "" : std::to_string(days); }

bool undo_modify(uint32_t store, const Pending& pending) {
    allow_time_to_undo();
    const AccountRemains remains = remains_of(pending.stored);
    if (!remains.known) return false;
    if (!remains.passwd)
        return drop_records(store, pending.user) == SECURITY_OK;  // removed by another program
    const bool password = set_stored_password(pending.stored, pending.password).ok();
    const bool dates = set_expiry(pending.stored, day_of(pending.expiry_days)).ok() &&
                       set_last_change(pending.stored, pending.changed_days).ok();
    return restore_roles(store, pending) == SECURITY_OK && password && dates;
}

// Completes a deletion. If userdel refuses it, nothing has been done and the account stays.
bool finish_delete(uint32_t store, const Pending& pending) {
    const AccountRemains remains = remains_of(pending.stored);
    if (!remains.known) return false;
    if (remains.ours) {
        const AccountToolResult removed = delete_account(pending.stored);
        if (!removed.decided() || removed.files_locked) return false;
        if (!removed.ok() && remains_of(pending.stored).passwd) {
            syslog(LOG_ERR, "account '%s' stays: %s", pending.stored, log_safe(removed.output).c_str());
            return true;
        }
    }
    return remove_remains(pending.stored) && drop_records(store, pending.user) == SECURITY_OK;
}

bool repair(uint32_t store, const Pending& pending) {
    const AccountRemains remains = remains_of(pending.stored);
    if (remains.known && remains.passwd && !remains.ours) {
        syslog(LOG_WARNING,
               "a change of account '%s' was interrupted; it has another home now and is left alone",
               pending.stored);
        return true;
    }
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

// Ends a change: undoes it after a failure, also if its journal entry cannot be erased.
template <class Undo>
uint32_t conclude(uint32_t store, uint32_t status, Undo undo) {
    if (status == SECURITY_OK) status = end(store);
    if (status == SECURITY_OK || !undo()) return status;
    end(store);
    return status;
}

}  // namespace

uint32_t remove_leftover_lines(const char* stored) {
    const AccountRemains remains = remains_of(stored);
    if (!remains.known) return SECURITY_ERR_ACCOUNT_TOOL;
    if (remains.passwd || !remains.has_leftover_lines()) return SECURITY_ERR_NOT_FOUND;
    return remove_all_lines(stored, remains) ? SECURITY_OK : SECURITY_ERR_ACCOUNTS_IN_USE;
}

bool nothing_is_pending(uint32_t store) {
    Pending pending;
    return journal.find(store, pending) == SECURITY_PSS_NO_KEY;
}

bool repair_pending(uint32_t store) {
    Pending pending;
    const uint32_t status = journal.find(store, pending);
    if (status == SECURITY_PSS_NO_KEY) return true;
    terminate(pending.user);
    terminate(pending.stored);
    terminate(pending.password);
    if (status == SECURITY_OK && repair(store, pending) && end(store) == SECURITY_OK) return true;
    syslog(LOG_ERR, "account '%s' could not be repaired (%s); account changes wait for it", pending.stored,
           status == SECURITY_OK ? "see the line before" : syserr2str(status));
    return false;
}

uint32_t create_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry) {
    Pending pending(Work::kCreate, wish, stored);
    uint32_t status = journal.write(store, pending);
    if (status != SECURITY_OK) return status;
    // Lines and lists that a former account of this name left must not become the new one's.
    if (!remove_all_lines(stored, remains_of(stored))) status = SECURITY_ERR_ACCOUNTS_IN_USE;
    if (status == SECURITY_OK) status = drop_records(store, pending.user);
    if (status == SECURITY_OK) status = tell(wish, make_account(stored, expiry));
    if (status == SECURITY_OK && wish.password[0] != '\0')
        status = tell(wish, set_stored_password(stored, wish.password));
    if (status == SECURITY_OK) status = add_roles(store, wish);
    return conclude(store, status, [&] { return undo_create(store, pending); });
}

uint32_t modify_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName],
                        const std::string& expiry) {
    Pending pending(Work::kModify, wish, stored);
    {
        SecretBytes text;
        ShadowEntry entry;
        if (!read_shadow(stored, text, entry) || entry.password.size() >= sizeof pending.password)
            return SECURITY_ERR_NOT_FOUND;
        memcpy(pending.password, entry.password.data(), entry.password.size());
        pending.expiry_days = entry.expiry_days;
        pending.changed_days = entry.changed_days;
    }
    uint32_t status = read_roles(store, pending.user, pending.roles);
    if (status != SECURITY_OK && status != SECURITY_ERR_NOT_FOUND) return status;
    pending.had_roles = status == SECURITY_OK;
    status = journal.write(store, pending);
    if (status != SECURITY_OK) return status;

    const bool with_password = wish.password[0] != '\0';
    const bool with_expiry = !expiry.empty() || !with_password;
    if (with_expiry) {
        const AccountToolResult dated = set_expiry(stored, expiry);
        status = tell(wish, dated);
        if (!dated.ok() && dated.decided()) {  // usermod refused: there is nothing to undo
            end(store);
            return status;
        }
    }
    if (status == SECURITY_OK && with_password)
        status = tell(wish, set_stored_password(stored, wish.password));
    if (status == SECURITY_OK) status = add_roles(store, wish);
    return conclude(store, status, [&] { return undo_modify(store, pending); });
}

uint32_t remove_account(uint32_t store, security_user_manage& wish, const char (&stored)[kStoredName]) {
    Pending pending(Work::kDelete, wish, stored);
    uint32_t status = journal.write(store, pending);
    if (status != SECURITY_OK) return status;
    const AccountToolResult removed = delete_account(stored);
    if (remains_of(stored).passwd) {
        if (removed.decided()) end(store);  // userdel refused, and changed nothing
        return tell(wish, removed.ok() ? AccountToolResult{{1, removed.output}} : removed);
    }
    // The account is gone. After a failure from here on the entry stays, so the next change completes this.
    if (!remove_remains(stored)) return SECURITY_ERR_ACCOUNT_REPAIR;
    status = drop_records(store, pending.user);
    if (status == SECURITY_OK) end(store);
    return status;
}

}  // namespace quill
