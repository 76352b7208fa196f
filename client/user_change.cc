// Accounts: read from the shadow file, created, changed and deleted by the daemon.
//
// A change is a row of steps, each of which may end it: judge the password, check the date and the name, ask
// for the account, then for its password, then send its key.
#include "client/user_change.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "common/request.h"
#include "common/text_field.h"
#include "common/trace.h"
#include "common/wiped.h"
#include "quillplatform/accounts.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kLookUpFailed = 1;
constexpr uint32_t kMostUsers = 256;
constexpr char kNoPassword[] = "!!!!!!!!!!!";
constexpr char kConfigured[] = "configured";
constexpr int kFirstYear = 1902;
constexpr uint32_t kYears = 136;
constexpr int64_t kDay = 86400;

bool accepts_expired_users = false;

struct FileType {
    const char* device;
    int32_t type;
};
constexpr FileType kKeyFiles[] = {{"volatile", SECURITY_LOCATION_VOLATILE},
                                  {"bootflash", SECURITY_LOCATION_BOOTFLASH}};

// ------------------------------------------------------------------------------------------------ reading

void take_expiry(int32_t days, common_user_record& record) {
    if (days == -1) {
        record.expiry_year = record.expiry_month = record.expiry_day = 0;
        return;
    }
    const int64_t last_second = days * kDay + kDay - 1;
    const auto when = static_cast<time_t>(std::clamp<int64_t>(last_second, std::numeric_limits<time_t>::min(),
                                                              std::numeric_limits<time_t>::max()));
    if (const tm* date = gmtime(&when)) set_expiry(record, *date);
}

uint32_t read_user(uint32_t handle, common_user_record& record) {
    char name[sizeof record.name];
    copy_field(name, record.name);
    platform_shadow_entry* entry = nullptr;
    if (security_conf_get_vdc_user(handle, name, &entry) != SECURITY_OK) return kLookUpFailed;
    if (entry == nullptr) return SECURITY_ERR_NO_USER;
    const bool placeholder = entry->password != nullptr && strcmp(entry->password, kNoPassword) == 0;
    record.account_kind = placeholder ? SECURITY_ACCOUNT_EXPIRED : SECURITY_ACCOUNT_ORDINARY;
    take_expiry(entry->expiry_days, record);
    const bool has_key = cmi_security_common_user_ssh_key_configured(handle, name) == 1;
    set_text(record.ssh_key, has_key ? kConfigured : "");
    return SECURITY_OK;
}

// ----------------------------------------------------------------------------------------------- changing

// What is asked for, with every text terminated.
struct Wish : Wiped<common_user_record> {
    explicit Wish(const common_user_record& record) : Wiped(record) {
        copy_field(name, record.name);
        copy_field(password, record.password);
        copy_field(ssh_key, record.ssh_key);
        copy_field(role, record.role);
    }

    bool has_date() const { return expiry_year > 0 && expiry_month > 0 && expiry_day > 0; }
    bool clears_date() const { return expiry_year == 0 && expiry_month == 0 && expiry_day == 0; }
    bool has_password() const { return password[0] != '\0'; }
    bool password_is_stored() const { return password_format == SECURITY_PASSWORD_STORED; }
    bool has_clear_password() const { return has_password() && !password_is_stored(); }
};

struct Change {
    uint32_t handle;
    Wish wish;
    bool create, modify, remove;  // at most one of them
    bool exists;

    bool writes() const { return create || modify; }
};

uint32_t check_password(const Change& change) {
    if (!change.writes() || !change.wish.has_clear_password()) return SECURITY_OK;
    const bool accepted =
        security_user_password_check_psec_norm(change.handle, change.wish.password, change.wish.name) == 0;
    return accepted ? SECURITY_OK : SECURITY_ERR_WEAK_PASSWORD;
}

// mktime(3) answers -1 for one second of 1969 too; only a failure leaves the day of the week alone.
bool to_time(tm& date, time_t& when) {
    date.tm_wday = -1;
    when = mktime(&date);
    return when != -1 || date.tm_wday != -1;
}

bool expiry_is_good(const Wish& wish) {
    tm given{};
    given.tm_sec = wish.expiry_second;
    given.tm_min = wish.expiry_minute;
    given.tm_hour = wish.expiry_hour;
    given.tm_mday = wish.expiry_day;
    given.tm_mon = wish.expiry_month - 1;
    given.tm_year = wish.expiry_year - 1900;
    given.tm_isdst = -1;
    const time_t now = time(nullptr);
    time_t when;
    if (!to_time(given, when)) return false;
    const tm* canonical = localtime(&when);
    if (canonical == nullptr) return false;
    if (static_cast<uint32_t>(wish.expiry_year) - kFirstYear >= kYears) return false;

    const int year = canonical->tm_year + 1900;
    const int month = canonical->tm_mon + 1;
    const int day = canonical->tm_mday;
    const bool in_calendar = year == wish.expiry_year && month == wish.expiry_month && day == wish.expiry_day;
    const auto expiry = static_cast<int>(when);
    const auto today = static_cast<int>(now);
    if (!in_calendar) {
        syslog(LOG_ERR,
               "canonized_time_struct->tm_year=%d,canonized_time_struct->tm_mon=%d,"
               "canonized_time_struct->tm_mday=%d,canonized_time_struct->tm_isdst=%d,"
               "time_struct.tm_year=%d,time_struct.tm_mon=%d,time_struct.tm_mday=%d,"
               "time_struct.tm_isdst=%d,canonized_time=%d,today=%d",
               year, month, day, canonical->tm_isdst, wish.expiry_year, wish.expiry_month, wish.expiry_day,
               -1, expiry, today);
        return false;
    }
    if (accepts_expired_users || now <= when) return true;
    syslog(LOG_ERR, "expiry time = %d, today = %d", expiry, today);
    return false;
}

uint32_t check_expiry(const Change& change) {
    if (!change.writes() || !change.wish.has_date()) return SECURITY_OK;
    return expiry_is_good(change.wish) ? SECURITY_OK : SECURITY_ERR_EXPIRY_DATE;
}

uint32_t check_new_user(const Change& change) {
    if (!change.create) return SECURITY_OK;
    uint32_t count = 0;
    const uint32_t status = cmi_security_num_users_get(change.handle, &count);
    if (status != SECURITY_OK) return status;
    if (count == kMostUsers) return SECURITY_ERR_TOO_MANY_USERS;  // more got in another way, and stay
    return is_internal_user(change.wish.name) == 1 ? SECURITY_ERR_NO_USER : SECURITY_OK;
}

// A text for a caller's buffer, of which no more is touched than it needs.
template <size_t size>
void copy_out(char* to, const char (&text)[size]) {
    if (to == nullptr) return;
    const size_t length = strnlen(text, size - 1);
    memcpy(to, text, length);
    to[length] = '\0';
}

// A text that loses its terminator where it fills the field; zero behind it otherwise.
template <size_t size, size_t longer>
void copy_unended(char (&to)[size], const char (&text)[longer]) {
    const size_t length = strnlen(text, size);
    memcpy(to, text, length);
    memset(to + length, 0, size - length);
}

// The text of a failure without what stands before it in a tool's message.
template <size_t size>
void report(const char (&text)[size], const char* marker) {
    char whole[size];
    copy_field(whole, text);
    set_text(cmi_common_user_err_str, security_conf_get_stderr(whole, marker));
}

uint32_t remove_account(const Change& change) {
    if (!change.exists) return SECURITY_ERR_NOT_FOUND;
    security_user_manage message{};
    copy_field(message.user_name, change.wish.name);
    Reply reply;
    const uint32_t status =
        send(SECURITY_USER_MANAGE_REQUEST, DEL_REQ, &message, sizeof message, &reply, change.handle);
    // A failure that came without a reply passes for success; callers have always been let through.
    if (status == SECURITY_OK || !reply.received()) return SECURITY_OK;
    if (const auto* answer = reply.as<security_user_manage>()) {
        cmi_common_user_return_code = answer->return_code;
        report(answer->error, "userdel: ");
    }
    return status;
}

bool account_is_concerned(const Change& change) {
    const Wish& wish = change.wish;
    const bool date_given = wish.has_date() || wish.clears_date();
    const bool stored_password = wish.has_password() && wish.password_is_stored();
    return change.create || (change.modify && (date_given || stored_password));
}

void describe(const Wish& wish, security_user_manage& message) {
    copy_field(message.user_name, wish.name);
    if (wish.has_date())
        snprintf(message.expiry, sizeof message.expiry, "%d-%d-%d", wish.expiry_year, wish.expiry_month,
                 wish.expiry_day);
    if (wish.has_password() && wish.password_is_stored()) copy_field(message.password, wish.password);
    if (wish.role[0] == '\0') return;
    message.num_roles = 1;
    copy_field(message.roles[0], wish.role);
    copy_field(message.role, wish.role);
}

uint32_t write_account(const Change& change) {
    if (!account_is_concerned(change)) return SECURITY_OK;
    Wiped<security_user_manage> message;
    describe(change.wish, message);
    Reply reply;
    const uint32_t status =
        send(SECURITY_USER_MANAGE_REQUEST, SET_REQ, &message, sizeof message, &reply, change.handle);
    const auto* answer = reply.as<security_user_manage>();
    if (status == SECURITY_OK || answer == nullptr) return status;
    cmi_common_user_return_code = answer->return_code;
    copy_unended(cmi_common_user_err_str, answer->error);
    return status;
}

uint32_t send_password(uint32_t handle, const char* name, const char* password, Reply& reply) {
    Wiped<security_passwd> message;
    set_text(message.user_name, name);
    set_text(message.password, password);
    const uint32_t status = send(SECURITY_PASSWD_REQUEST, SET_REQ, &message, sizeof message, &reply, handle);
    return undelivered(status) ? SECURITY_ERR_PASSWD_UNDELIVERED : status;
}

uint32_t write_password(const Change& change) {
    if (!change.writes() || !change.wish.has_clear_password()) return SECURITY_OK;
    Reply reply;
    const uint32_t status = send_password(change.handle, change.wish.name, change.wish.password, reply);
    const auto* answer = reply.as<security_passwd>();
    if (status != SECURITY_OK && answer != nullptr) report(answer->error, "passwd:");
    return status;
}

uint32_t send_key(const Change& change) {
    if (!change.writes() || change.wish.ssh_key[0] == '\0') return SECURITY_OK;
    char device[256] = "";
    char path[256] = "";
    const int32_t parsed = vsh_xml_parse_uri(change.wish.ssh_key, device, path);
    if (parsed != 0) return static_cast<uint32_t>(parsed);
    for (const auto& [known, type] : kKeyFiles) {
        if (strcmp(known, device) != 0) continue;
        char absolute[sizeof path + 1];  // which is rewritten where it stands
        snprintf(absolute, sizeof absolute, "/%s", path);
        return security_sshkey_send(absolute, change.wish.name, type, SET_REQ, change.handle);
    }
    return SECURITY_ERR_FILE_OPEN;
}

uint32_t change_user(uint32_t handle, uint32_t operation, common_user_record& record) {
    Wish wish(record);
    if (wish.name[0] == '\0') return SECURITY_ERR_NO_USER;
    platform_shadow_entry* entry = nullptr;
    if (security_conf_get_vdc_user(handle, wish.name, &entry) != SECURITY_OK) return kLookUpFailed;
    record.account_kind = SECURITY_ACCOUNT_ORDINARY;

    const bool exists = entry != nullptr;
    const bool sets = operation == SET_REQ;
    const Change change{handle, Wish(record), sets && !exists, sets && exists, operation == DEL_REQ, exists};
    uint32_t status = check_password(change);
    if (status == SECURITY_OK) status = check_expiry(change);
    if (status == SECURITY_OK) status = check_new_user(change);
    if (status == SECURITY_OK) status = change.remove ? remove_account(change) : write_account(change);
    if (status == SECURITY_OK) status = write_password(change);
    if (status == SECURITY_OK) status = send_key(change);
    return status;
}

}  // namespace

void set_expiry(common_user_record& user, const tm& date) {
    user.expiry_year = date.tm_year + 1900;
    user.expiry_month = date.tm_mon + 1;
    user.expiry_day = date.tm_mday;
    user.expiry_hour = date.tm_hour;
    user.expiry_minute = date.tm_min;
    user.expiry_second = date.tm_sec;
}

void accept_expired_users() { accepts_expired_users = true; }

}  // namespace quill

uint32_t cmi_common_user_config(uint32_t handle, uint32_t operation, common_user_record* record) {
    using namespace quill;
    trace("In %s:", __func__);
    if (operation != GET_REQ && operation != GETNEXT_REQ) return change_user(handle, operation, *record);
    if (operation == GETNEXT_REQ) {
        record->name[sizeof record->name - 1] = '\0';
        const uint32_t status = security_conf_user_getnext(handle, record->name);
        if (status != SECURITY_OK) return status;
    }
    return read_user(handle, *record);
}

uint32_t security_change_passwd(uint32_t handle, const char* name, const char* password, char* text,
                                char* error) {
    using namespace quill;
    Reply reply;
    const uint32_t status = send_password(handle, name, password, reply);
    if (const auto* answer = reply.as<security_passwd>()) {
        copy_out(text, answer->output);
        copy_out(error, answer->error);
    }
    return status;
}

uint32_t cmi_security_common_user_ssh_key_configured(uint32_t handle, const char* name) {
    using namespace quill;
    ssh_key_rec key{};
    set_text(key.user_name, name);
    Reply reply;
    const uint32_t status = send(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &key, sizeof key, &reply, handle);
    if (status != SECURITY_ERR_NOT_FOUND) return status == SECURITY_OK ? 1 : 0;
    // This one has always gone out without the name, and daemons answer accordingly.
    const ssh_key_new_rec empty{};
    Reply second;
    return send(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &empty, sizeof empty, &second, handle) == SECURITY_OK
               ? 1
               : 0;
}
