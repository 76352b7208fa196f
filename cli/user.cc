// quillsec user: accounts with their passwords, expiry dates and keys.
#include <fmt/format.h>
#include <pwd.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "base/date.h"
#include "base/home_folder.h"
#include "base/stored_password.h"
#include "base/text_field.h"
#include "cli/command.h"
#include "cli/key_file.h"
#include "cli/line.h"
#include "cli/quiet.h"
#include "cli/secret_input.h"
#include "cli/user.h"
#include "cli/words.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

using Frame = Wiped<common_user_frame>;

constexpr Argument kExpires{"--expires", "the day it expires, year-month-day", Argument::kOptional, "DATE"};
constexpr Argument kNewExpiry{"--expires", "the day it expires, year-month-day, or never",
                              Argument::kOptional, "DATE"};
constexpr Argument kKey{"--key", "public key file, as bootflash:PATH or volatile:PATH", Argument::kOptional,
                        "URI"};
constexpr Argument kPasswordStdin{"--password-stdin", "read the password from standard input, one line",
                                  Argument::kFlag};
constexpr Argument kHashStdin{"--password-hash-stdin",
                              "read a password that is hashed already, as in shadow(5)", Argument::kFlag};
constexpr Argument kNoPassword{"--no-password", "set none: nobody can log in with a password",
                               Argument::kFlag};
constexpr Argument kNewPassword{"--password", "set a new password, typed at the terminal", Argument::kFlag};

constexpr uint32_t kNoAccess = 1;  // of cmi_security_common_user_config(): the shadow file cannot be read

// Sends a request about an account. A failure includes the reason that the library has left in
// cmi_common_user_err_str.
void request(const std::string& name, uint32_t operation, Frame& frame, const char* action) {
    cmi_common_user_err_str[0] = '\0';
    const uint32_t status = [&] {
        const QuietStandardError quiet;
        return status_of(cmi_security_common_user_config(0, operation, &frame, security_cmi_username,
                                                         security_cmi_session_id));
    }();
    if (status == kNoAccess) {
        throw Failure{
            Exit::kNotPermitted, user_object(name),
            fmt::format("{}: the account files of this system are not open to you", user_object(name)),
            "run as root, or as a member of the administrators' group and of the group shadow"};
    }
    try {
        require_success(status, user_object(name), action);
    } catch (Failure& failure) {
        std::string reason = field_text(cmi_common_user_err_str);
        reason.erase(reason.find_last_not_of("\n .") + 1);
        const bool explained = status == SECURITY_ERR_WEAK_PASSWORD || status == SECURITY_ERR_ACCOUNT_TOOL;
        if (explained && !reason.empty()) failure.text += ": " + printable(reason);
        const bool weak = status == SECURITY_ERR_WEAK_PASSWORD;
        if (weak && lacks_dictionary(name, frame.body.user.password))
            throw no_dictionary(user_object(name), "password");
        throw;
    }
}

void begin(const std::string& name, Frame& frame) {
    frame.kind = SECURITY_FRAME_USER;
    set_text(frame.body.user.name, name.c_str());
    frame.body.user.expiry_year = frame.body.user.expiry_month = frame.body.user.expiry_day = -1;
}

void take_text(const std::string& text, char* field, size_t size, const char* option) {
    if (text.size() >= size) {
        const std::string what = fmt::format("option '{}'", option);
        throw Failure{Exit::kInvalidValue, what, what + ": the text is too long",
                      fmt::format("use at most {} bytes", size - 1)};
    }
    memcpy(field, text.data(), text.size());
}

void take_expiry(const std::string& text, common_user_record& user) {
    const std::optional<Date> date = parse_date(text.c_str());
    if (!date || date->year <= 0 || date->month <= 0 || date->day <= 0) {
        throw Failure{Exit::kInvalidValue, "option '--expires'",
                      fmt::format("option '--expires': value '{}' is no date", printable(text)),
                      "give a day to come as year-month-day, 2037-12-31 at the latest"};
    }
    user.expiry_year = date->year;
    user.expiry_month = date->month;
    user.expiry_day = date->day;
}

void refuse_both(const std::string& name, const Arguments& arguments, const Argument& one,
                 const Argument& other) {
    if (!arguments.has(one.name) || !arguments.has(other.name)) return;
    throw Failure{Exit::kUsage, user_object(name),
                  fmt::format("{}: {} and {} exclude each other", user_object(name), one.name, other.name),
                  "give one of them"};
}

void take_password(const std::string& name, const Arguments& arguments, common_user_record& user) {
    const bool hashed = arguments.has(kHashStdin.name);
    refuse_both(name, arguments, kPasswordStdin, kHashStdin);
    Line password;
    const char* option = hashed ? kHashStdin.name : kPasswordStdin.name;
    read_secret({user_object(name), "password", sizeof user.password - 1, true, option}, arguments, password);
    memcpy(user.password, password.bytes, password.length);
    if (hashed && !verifiable_password(user.password)) {
        throw Failure{
            Exit::kInvalidValue, user_object(name),
            fmt::format("{}: this is no hash that crypt(3) of this system could verify a password "
                        "with in reasonable time",
                        user_object(name)),
            "give the complete output of 'mkpasswd' or 'openssl passwd -6', or '!' to lock the password"};
    }
    user.password_format = hashed ? SECURITY_PASSWORD_STORED : SECURITY_PASSWORD_CLEAR;
}

// The key is not sent by the library, which would open the file again by its name.
std::optional<KeyFile> take_key(const std::string& name, const Arguments& arguments) {
    const std::string* file = arguments.find(kKey.name);
    if (file == nullptr) return std::nullopt;
    return std::optional<KeyFile>(std::in_place, device_key_file_named(*file), name);
}

void send_key(const std::string& name, std::optional<KeyFile>& key) {
    if (key) require_success(key->send(), user_object(name), "change");
}

// Returns true for a status after which the account may exist, because a later request failed.
bool follows_creation(uint32_t status) {
    // If the creation itself fails with SECURITY_ERR_ACCOUNT_TOOL, no account is left; the caller looks.
    return status == SECURITY_ERR_PASSWD_UNDELIVERED || status == SECURITY_ERR_ACCOUNT_TOOL;
}

void refuse_existing(const std::string& name) {
    const passwd* entry = vdc_getpwnam(name.c_str());
    if (entry == nullptr) return;
    const std::string home = entry->pw_dir;
    if (entry->pw_uid == 0 || is_internal_user(name.c_str()) == 1) {
        throw Failure{Exit::kExists, user_object(name),
                      user_object(name) + " exists already: it is one of the system's own accounts",
                      "choose another name; passwd(1) sets the password of this one"};
    }
    if (home != home_of(security_get_system_username(name.c_str()))) {
        throw Failure{Exit::kExists, user_object(name),
                      user_object(name) + " exists already, made by another program: its home is " + home,
                      "choose another name; usermod(8) and passwd(1) change this account"};
    }
    throw Failure{Exit::kExists, user_object(name), user_object(name) + " exists already",
                  "choose another name, or use 'quillsec user set'"};
}

Answer add(const Arguments& arguments) {
    const std::string& name = checked_user(arguments["NAME"]);
    refuse_existing(name);
    refuse_both(name, arguments, kNoPassword, kPasswordStdin);
    refuse_both(name, arguments, kNoPassword, kHashStdin);
    Frame frame;
    begin(name, frame);
    common_user_record& user = frame.body.user;
    if (const std::string* date = arguments.find(kExpires.name)) take_expiry(*date, user);
    if (const std::string* role = arguments.find("--role"))
        take_text(*role, user.role, sizeof user.role, "--role");
    std::optional<KeyFile> key = take_key(name, arguments);
    if (!arguments.has(kNoPassword.name)) take_password(name, arguments, user);
    refuse_existing(name);  // another program may have created it during the input
    bool created = false;
    try {
        request(name, SET_REQ, frame, "create");
        created = true;
        send_key(name, key);
    } catch (Failure& failure) {
        // The account may exist already when its password or its key is refused; it is deleted then.
        created = created || follows_creation(failure.status);
        if (!created || vdc_getpwnam(name.c_str()) == nullptr) throw;
        cmi_security_common_user_delete(0, name.c_str(), security_cmi_username, security_cmi_session_id);
        if (vdc_getpwnam(name.c_str()) != nullptr) failure.remedy += "; the account stays without it";
        throw;
    }
    return show_user(name);
}

Answer set(const Arguments& arguments) {
    const std::string& name = checked_user(arguments["NAME"]);
    require_success(vdc_getpwnam(name.c_str()) == nullptr ? SECURITY_ERR_NOT_FOUND : SECURITY_OK,
                    user_object(name), "change");
    const std::string* date = arguments.find(kNewExpiry.name);
    const bool password = arguments.has(kNewPassword.name) || arguments.has(kPasswordStdin.name) ||
                          arguments.has(kHashStdin.name);
    if (!date && !password && !arguments.find(kKey.name)) {
        throw Failure{Exit::kUsage, user_object(name), user_object(name) + ": there is nothing to set",
                      "see quillsec user set --help"};
    }
    Frame frame;
    begin(name, frame);
    common_user_record& user = frame.body.user;
    if (password) take_password(name, arguments, user);
    std::optional<KeyFile> key = take_key(name, arguments);
    const bool never = date && folded(*date) == "never";
    if (date && !never) take_expiry(*date, user);
    // One record (users.h) cannot both set a stored password and clear the expiry date.
    const bool separate = never && password && user.password_format == SECURITY_PASSWORD_STORED;
    if (never && !separate) user.expiry_year = user.expiry_month = user.expiry_day = 0;
    try {
        request(name, SET_REQ, frame, "change");
        if (separate) {
            Frame expiry;
            begin(name, expiry);
            expiry.body.user.expiry_year = expiry.body.user.expiry_month = expiry.body.user.expiry_day = 0;
            request(name, SET_REQ, expiry, "change");
        }
        send_key(name, key);
    } catch (Failure& failure) {
        // Each part has its own request; those before the failed one have been executed.
        const int parts = (date != nullptr) + password + arguments.has(kKey.name);
        if (parts > 1) failure.remedy += fmt::format("; 'quillsec user show {}' tells what is done", name);
        throw;
    }
    return show_user(name);
}

Answer remove(const Arguments& arguments) {
    const std::string& name = checked_user(arguments["NAME"]);
    Frame frame;
    begin(name, frame);
    request(name, DEL_REQ, frame, "delete");
    if (vdc_getpwnam(name.c_str()) != nullptr) {
        // The library returns success for a request that was not delivered; another request shows why.
        uint32_t value = 0;
        require_success(status_of(cmi_enable_info_config(0, GET_REQ, SECURITY_SERVICE_SSH, &value)),
                        user_object(name), "delete");
        throw Failure{Exit::kFailed, user_object(name), user_object(name) + " is still there", "try again"};
    }
    return Remark{"deleted", {name, printable(user_object(name) + ": deleted")}};
}

std::string notes() {
    return "A NAME belongs to the virtual device context in which quillsec runs (SYSMGR_VDC_ID). Passwords\n"
           "are typed at the terminal, or read from standard input: on the command line others could\n"
           "see them. delete removes the account with its home, roles, locales and key.\n\n"
           "With --json: {\"users\": [{\"name\", \"uid\", \"vdc\", \"expires\", \"internal\", \"roles\",\n"
           "  \"locales\", \"key\"}, ...]}: expires is \"year-month-day\", or null for never and where it\n"
           "  cannot be read; internal and key are booleans; roles and locales are lists of names.";
}

constexpr Verb kVerbs[] = {
    {"show", "show the users, or one", {{"NAME", "the user", Argument::kOptional}}, show_users, kNeedsDaemon},
    {"add",
     "create a user",
     {{"NAME", "the user"},
      {"--role", "a role to begin with", Argument::kOptional, "ROLE"},
      kExpires,
      kKey,
      kPasswordStdin,
      kHashStdin,
      kNoPassword},
     add,
     kNeedsDaemon},
    {"set",
     "change a user's password, expiry date or key",
     {{"NAME", "the user"}, kNewExpiry, kKey, kNewPassword, kPasswordStdin, kHashStdin},
     set,
     kNeedsDaemon},
    {"delete",
     "delete a user with home, roles, locales and key",
     {{"NAME", "the user"}},
     remove,
     kNeedsDaemon},
};
}  // namespace

const Noun kUser{"user", "users: accounts, passwords, expiry dates and keys", notes, kVerbs};

}  // namespace quill::cli
