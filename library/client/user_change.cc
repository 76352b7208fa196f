// Accounts: reading them from the shadow file, and having the daemon create, change and delete them.
//
// A change is a sequence of steps; the first that fails ends it: check the password, the expiry date and the
// name, then send the account, its password and its key to the daemon.
#include "library/client/user_change.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "base/text_field.h"
#include "base/wiped.h"
#include "library/common/request.h"
#include "library/common/trace.h"
#include "quillplatform/accounts.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kLookUpFailed = 1;
constexpr uint32_t kMaxUsers = 256;
constexpr char kNoPassword[] = "!!!!!!!!!!!";
constexpr char kConfigured[] = "configured";
constexpr int kFirstYear = 1902;  // of those that fit a 32-bit time_t
constexpr uint32_t kYears = 136;
constexpr int64_t kDay = 86400;  // seconds

bool accepts_expired_users = false;

struct FileType {
    const char* device;
    int32_t type;
};
constexpr FileType kKeyFiles[] = {{"volatile", SECURITY_LOCATION_VOLATILE},
                                  {"bootflash", SECURITY_LOCATION_BOOTFLASH}};

// ------------------------------------------------------------------------------------------------ reading

// Stores the last second of the given day since 1970, UTC; all zero for -1, which is never.
void set_expiry_from_days(int32_t days, common_user_record& record) {
    if (days == -1) {
        record.expiry_year = record.expiry_month = record.expiry_day = 0;
        return;
    }
    const int64_t last_second = days * kDay + kDay - 1;
    const auto when = static_cast<time_t>(std::clamp<int64_t>(last_second, std::numeric_limits<time_t>::min(),
                                                              std::numeric_limits<time_t>::max()));
    if (const tm* date = gmtime(&when)) set_expiry(record, *date);
}

uint32_t read_user(uint32_t connection, common_user_record& record) {
    char name[sizeof record.name];
    copy_field(name, record.name);
    platform_shadow_entry* entry = nullptr;
    if (security_conf_get_vdc_user(connection, name, &entry) != SECURITY_OK) return kLookUpFailed;
    if (entry == nullptr) return SECURITY_ERR_NO_USER;
    const bool placeholder = entry->password != nullptr && strcmp(entry->password, kNoPassword) == 0;
    record.account_kind = placeholder ? SECURITY_ACCOUNT_EXPIRED : SECURITY_ACCOUNT_ORDINARY;
    set_expiry_from_days(entry->expiry_days, record);
    const bool has_key = cmi_security_common_user_ssh_key_configured(connection, name) == 1;
    set_text(record.ssh_key, has_key ? kConfigured : "");
    return SECURITY_OK;
}

// ----------------------------------------------------------------------------------------------- changing

// A copy of the caller's record with all texts terminated.
struct RequestedUser : Wiped<common_user_record> {
    explicit RequestedUser(const common_user_record& record) : Wiped(record) {
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
    uint32_t connection;
    RequestedUser user;
    bool create, modify, remove;  // at most one is true
    bool exists;

    bool writes() const { return create || modify; }
};

uint32_t check_password(const Change& change) {
    if (!change.writes() || !change.user.has_clear_password()) return SECURITY_OK;
    const bool accepted = security_user_password_check_psec_norm(change.connection, change.user.password,
                                                                 change.user.name) == 0;
    return accepted ? SECURITY_OK : SECURITY_ERR_WEAK_PASSWORD;
}

// mktime(3) returns -1 both on failure and for one second of 1969; only a failure leaves tm_wday unchanged.
bool to_time(tm& date, time_t& when) {
    date.tm_wday = -1;
    when = mktime(&date);
    return when != -1 || date.tm_wday != -1;
}

bool expiry_is_good(const RequestedUser& user) {
    tm given{};
    given.tm_sec = user.expiry_second;
    given.tm_min = user.expiry_minute;
    given.tm_hour = user.expiry_hour;
    given.tm_mday = user.expiry_day;
    given.tm_mon = user.expiry_month - 1;
    given.tm_year = user.expiry_year - 1900;
    given.tm_isdst = -1;
    const time_t now = time(nullptr);
    time_t when;
    if (!to_time(given, when)) return false;
    const tm* canonical = localtime(&when);
    if (canonical == nullptr) return false;
    if (static_cast<uint32_t>(user.expiry_year) - kFirstYear >= kYears) return false;

    const int year = canonical->tm_year + 1900;
    const int month = canonical->tm_mon + 1;
    const int day = canonical->tm_mday;
    const bool in_calendar = year == user.expiry_year && month == user.expiry_month && day == user.expiry_day;
    const auto expiry = static_cast<int>(when);
    const auto today = static_cast<int>(now);
    if (!in_calendar) {
        syslog(LOG_ERR,
               "canonized_time_struct->tm_year=%d,canonized_time_struct->tm_mon=%d,"
               "canonized_time_struct->tm_mday=%d,canonized_time_struct->tm_isdst=%d,"
               "time_struct.tm_year=%d,time_struct.tm_mon=%d,time_struct.tm_mday=%d,"
               "time_struct.tm_isdst=%d,canonized_time=%d,today=%d",
               year, month, day, canonical->tm_isdst, user.expiry_year, user.expiry_month, user.expiry_day,
               -1, expiry, today);
        return false;
    }
    if (accepts_expired_users || now <= when) return true;
    syslog(LOG_ERR, "expiry time = %d, today = %d", expiry, today);
    return false;
}

uint32_t check_expiry(const Change& change) {
    if (!change.writes() || !change.user.has_date()) return SECURITY_OK;
    return expiry_is_good(change.user) ? SECURITY_OK : SECURITY_ERR_EXPIRY_DATE;
}

uint32_t check_new_user(const Change& change) {
    if (!change.create) return SECURITY_OK;
    uint32_t count = 0;
    const uint32_t status = cmi_security_num_users_get(change.connection, &count);
    if (status != SECURITY_OK) return status;
    // Not checked above the limit: more accounts were created by other programs, and creation stays possible.
    if (count == kMaxUsers) return SECURITY_ERR_TOO_MANY_USERS;
    return is_internal_user(change.user.name) == 1 ? SECURITY_ERR_NO_USER : SECURITY_OK;
}

// Copies a text to a caller's buffer, of which no byte behind the terminator is written. Accepts null
// for `to`.
template <size_t size>
void copy_out(char* to, const char (&text)[size]) {
    if (to == nullptr) return;
    const size_t length = strnlen(text, size - 1);
    memcpy(to, text, length);
    to[length] = '\0';
}

// Stores what a failed tool printed, without the prefix that ends in `marker`, for the caller to read.
template <size_t size>
void set_error_text(const char (&text)[size], const char* marker) {
    char whole[size];
    copy_field(whole, text);
    set_text(cmi_common_user_err_str, security_conf_get_stderr(whole, marker));
}

uint32_t remove_account(const Change& change) {
    if (!change.exists) return SECURITY_ERR_NOT_FOUND;
    security_user_manage message{};
    copy_field(message.user_name, change.user.name);
    Reply reply;
    const uint32_t status =
        send(SECURITY_USER_MANAGE_REQUEST, DEL_REQ, &message, sizeof message, &reply, change.connection);
    // A failure without a reply is reported as success: callers depend on it.
    if (status == SECURITY_OK || !reply.received()) return SECURITY_OK;
    if (const auto* result = reply.as<security_user_manage>()) {
        cmi_common_user_return_code = result->return_code;
        set_error_text(result->error, "userdel: ");
    }
    return status;
}

// Returns true if the change includes anything that is set with the request for the account itself.
bool account_changes(const Change& change) {
    const RequestedUser& user = change.user;
    const bool date_given = user.has_date() || user.clears_date();
    const bool stored_password = user.has_password() && user.password_is_stored();
    return change.create || (change.modify && (date_given || stored_password));
}

void fill_account_request(const RequestedUser& user, security_user_manage& message) {
    copy_field(message.user_name, user.name);
    if (user.has_date())
        snprintf(message.expiry, sizeof message.expiry, "%d-%d-%d", user.expiry_year, user.expiry_month,
                 user.expiry_day);
    if (user.has_password() && user.password_is_stored()) copy_field(message.password, user.password);
    if (user.role[0] == '\0') return;
    message.num_roles = 1;
    copy_field(message.roles[0], user.role);
    copy_field(message.role, user.role);
}

uint32_t write_account(const Change& change) {
    if (!account_changes(change)) return SECURITY_OK;
    Wiped<security_user_manage> message;
    fill_account_request(change.user, message);
    Reply reply;
    const uint32_t status =
        send(SECURITY_USER_MANAGE_REQUEST, SET_REQ, &message, sizeof message, &reply, change.connection);
    const auto* result = reply.as<security_user_manage>();
    if (status == SECURITY_OK || result == nullptr) return status;
    cmi_common_user_return_code = result->return_code;
    set_unterminated_text(cmi_common_user_err_str, result->error);
    return status;
}

uint32_t send_password(uint32_t connection, const char* name, const char* password, Reply& reply) {
    Wiped<security_passwd> message;
    set_text(message.user_name, name);
    set_text(message.password, password);
    const uint32_t status =
        send(SECURITY_PASSWD_REQUEST, SET_REQ, &message, sizeof message, &reply, connection);
    return undelivered(status) ? SECURITY_ERR_PASSWD_UNDELIVERED : status;
}

uint32_t write_password(const Change& change) {
    if (!change.writes() || !change.user.has_clear_password()) return SECURITY_OK;
    Reply reply;
    const uint32_t status = send_password(change.connection, change.user.name, change.user.password, reply);
    const auto* result = reply.as<security_passwd>();
    if (status != SECURITY_OK && result != nullptr) set_error_text(result->error, "passwd:");
    return status;
}

uint32_t send_key(const Change& change) {
    if (!change.writes() || change.user.ssh_key[0] == '\0') return SECURITY_OK;
    char device[256] = "";
    char path[256] = "";
    const int32_t parsed = vsh_xml_parse_uri(change.user.ssh_key, device, path);
    if (parsed != 0) return static_cast<uint32_t>(parsed);
    for (const auto& [known, type] : kKeyFiles) {
        if (strcmp(known, device) != 0) continue;
        char absolute[sizeof path + 1];  // security_sshkey_send() rewrites it
        snprintf(absolute, sizeof absolute, "/%s", path);
        return security_sshkey_send(absolute, change.user.name, type, SET_REQ, change.connection);
    }
    return SECURITY_ERR_FILE_OPEN;
}

uint32_t change_user(uint32_t connection, uint32_t operation, common_user_record& record) {
    RequestedUser user(record);
    if (user.name[0] == '\0') return SECURITY_ERR_NO_USER;
    platform_shadow_entry* entry = nullptr;
    if (security_conf_get_vdc_user(connection, user.name, &entry) != SECURITY_OK) return kLookUpFailed;
    record.account_kind = SECURITY_ACCOUNT_ORDINARY;

    const bool exists = entry != nullptr;
    const bool create = operation == SET_REQ && !exists;
    const bool modify = operation == SET_REQ && exists;
    const Change change{connection, RequestedUser(record), create, modify, operation == DEL_REQ, exists};
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

uint32_t cmi_common_user_config(uint32_t connection, uint32_t operation, common_user_record* record) {
    using namespace quill;
    trace("In %s:", __func__);
    if (operation != GET_REQ && operation != GETNEXT_REQ) return change_user(connection, operation, *record);
    if (operation == GETNEXT_REQ) {
        record->name[sizeof record->name - 1] = '\0';
        const uint32_t status = security_conf_user_getnext(connection, record->name);
        if (status != SECURITY_OK) return status;
    }
    return read_user(connection, *record);
}

uint32_t security_change_passwd(uint32_t connection, const char* name, const char* password, char* text,
                                char* error) {
    using namespace quill;
    Reply reply;
    const uint32_t status = send_password(connection, name, password, reply);
    if (const auto* result = reply.as<security_passwd>()) {
        copy_out(text, result->output);
        copy_out(error, result->error);
    }
    return status;
}

uint32_t cmi_security_common_user_ssh_key_configured(uint32_t connection, const char* name) {
    using namespace quill;
    ssh_key_rec key{};
    set_text(key.user_name, name);
    Reply reply;
    const uint32_t status = send(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &key, sizeof key, &reply, connection);
    if (status != SECURITY_ERR_NOT_FOUND) return status == SECURITY_OK ? 1 : 0;
    // Sent without the user's name: daemons expect this request so.
    const ssh_key_new_rec empty{};
    Reply second;
    return send(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &empty, sizeof empty, &second, connection) ==
                   SECURITY_OK
               ? 1
               : 0;
}
