// quillsec user: accounts with their passwords, expiry dates and keys.
#include <fmt/format.h>
#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>

#include "cli/command.h"
#include "cli/exchange.h"
#include "cli/key.h"
#include "cli/line.h"
#include "cli/secret_input.h"
#include "cli/words.h"
#include "common/text_field.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"
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
constexpr Argument kNoPassword{"--no-password", "set none: nobody logs in with one", Argument::kFlag};
constexpr Argument kNewPassword{"--password", "set a new password, asked for at the terminal",
                                Argument::kFlag};

constexpr uint32_t kNoLookUp = 1;  // cmi_common_user_config(): the shadow file could not be asked

std::string object(const std::string& name) { return fmt::format("user '{}'", name); }

const std::string& checked(const std::string& name) {
    if (!name.empty() && name.size() < sizeof(common_user_record::name)) return name;
    throw Failure{Exit::kInvalidValue, object(name), object(name) + ": the name is not valid",
                  "use letters, digits, '_', '-' and '.', at most 31"};
}

// ------------------------------------------------------------------------------------------------ showing

// The day of shadow(5), or nothing for an account that does not expire.
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
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, object(user), "read");
    return {names, fmt::format("{}", fmt::join(names, ", "))};
}

template <class Record>
bool has_key_as(const std::string& user) {
    Record record{};
    set_text(record.user_name, user.c_str());
    const uint32_t status = ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, &record, sizeof record);
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, object(user), "read");
    return status == SECURITY_OK;
}

// In either of its formats; the library asks for the second one without the name.
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

Answer show_one(const std::string& name) {
    const passwd* entry = vdc_getpwnam(checked(name).c_str());
    require_success(entry == nullptr ? SECURITY_ERR_NOT_FOUND : SECURITY_OK, object(name), "read");
    const uid_t uid = entry->pw_uid;
    Table table = table_of_users();
    table.rows.push_back(row({name, uid, expiry_cell(vdc_getspnam(name.c_str()))}));
    return table;
}

// Both files are read once, however many accounts there are.
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

Answer show(const Arguments& arguments) {
    const std::string* name = arguments.find("NAME");
    return name ? show_one(*name) : show_all();
}

// ----------------------------------------------------------------------------------------------- changing

// A request about an account; a failure that came with words of its own shows them.
void request(const std::string& name, uint32_t operation, Frame& frame, const char* deed) {
    cmi_common_user_err_str[0] = '\0';
    const uint32_t status = status_of(cmi_security_common_user_config(
        0, operation, &frame, security_cmi_username, security_cmi_session_id));
    if (status == kNoLookUp) {
        throw Failure{Exit::kNotPermitted, object(name),
                      fmt::format("{}: the account files of this system are not open to you", object(name)),
                      "run as root, or as a member of the administrators' group and of the group shadow"};
    }
    try {
        require_success(status, object(name), deed);
    } catch (Failure& failure) {
        std::string said(cmi_common_user_err_str,
                         strnlen(cmi_common_user_err_str, sizeof cmi_common_user_err_str));
        said.erase(said.find_last_not_of("\n .") + 1);
        const bool explained = status == SECURITY_ERR_WEAK_PASSWORD || status == SECURITY_ERR_ACCOUNT_TOOL;
        if (explained && !said.empty()) failure.text += ": " + printable(said);
        if (said == "error loading dictionary")
            failure.remedy = "make the dictionary first, as quillsecurityd(8) says under FILES";
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
    int year = 0, month = 0, day = 0, length = 0;
    // NOLINTNEXTLINE(cert-err34-c): of so few digits that every number fits
    if (sscanf(text.c_str(), "%5d-%3d-%3d%n", &year, &month, &day, &length) != 3 ||
        static_cast<size_t>(length) != text.size() || year <= 0 || month <= 0 || day <= 0) {
        throw Failure{Exit::kInvalidValue, "option '--expires'",
                      fmt::format("option '--expires': value '{}' is no date", printable(text)),
                      "give a day to come as year-month-day, 2037-12-31 at the latest"};
    }
    user.expiry_year = year;
    user.expiry_month = month;
    user.expiry_day = day;
}

void refuse_both(const std::string& name, const Arguments& arguments, const Argument& one,
                 const Argument& other) {
    if (!arguments.has(one.name) || !arguments.has(other.name)) return;
    throw Failure{Exit::kUsage, object(name),
                  fmt::format("{}: {} and {} exclude each other", object(name), one.name, other.name),
                  "give one of them"};
}

void take_password(const std::string& name, const Arguments& arguments, common_user_record& user) {
    const bool hashed = arguments.has(kHashStdin.name);
    refuse_both(name, arguments, kPasswordStdin, kHashStdin);
    Line password;
    const char* option = hashed ? kHashStdin.name : kPasswordStdin.name;
    read_secret({object(name), "password", sizeof user.password - 1, true, option}, arguments, password);
    memcpy(user.password, password.bytes, password.length);
    user.password_format = hashed ? SECURITY_PASSWORD_STORED : SECURITY_PASSWORD_CLEAR;
}

void take_key(const std::string& name, const Arguments& arguments, common_user_record& user) {
    const std::string* key = arguments.find(kKey.name);
    if (key == nullptr) return;
    take_text(*key, user.ssh_key, sizeof user.ssh_key, kKey.name);
    check_key_file(*key, name);
}

// What only the requests that follow the one for the account answer.
bool comes_after_creation(uint32_t status) {
    constexpr uint32_t kLater[] = {SECURITY_ERR_PASSWD_UNDELIVERED,
                                   SECURITY_ERR_SSHKEY_CONVERT,
                                   SECURITY_ERR_SSHKEY_FORMAT,
                                   SECURITY_ERR_SSHKEY_TYPE,
                                   SECURITY_ERR_FILE_OPEN,
                                   SECURITY_ERR_FILE_READ,
                                   SECURITY_ERR_URI_TYPE};
    // The program for accounts leaves nothing of one that it could not make.
    return std::ranges::find(kLater, status) != std::end(kLater) || status == SECURITY_ERR_ACCOUNT_TOOL;
}

void refuse_existing(const std::string& name) {
    if (vdc_getpwnam(name.c_str()) == nullptr) return;
    throw Failure{Exit::kExists, object(name), object(name) + " exists already",
                  "choose another name, or use 'quillsec user set'"};
}

Answer add(const Arguments& arguments) {
    const std::string& name = checked(arguments["NAME"]);
    refuse_existing(name);
    refuse_both(name, arguments, kNoPassword, kPasswordStdin);
    refuse_both(name, arguments, kNoPassword, kHashStdin);
    Frame frame;
    begin(name, frame);
    common_user_record& user = frame.body.user;
    if (const std::string* date = arguments.find(kExpires.name)) take_expiry(*date, user);
    if (const std::string* role = arguments.find("--role"))
        take_text(*role, user.role, sizeof user.role, "--role");
    take_key(name, arguments, user);
    if (!arguments.has(kNoPassword.name)) take_password(name, arguments, user);
    refuse_existing(name);  // somebody may have been faster at typing
    try {
        request(name, SET_REQ, frame, "create");
    } catch (Failure& failure) {
        // The account may be there already when its password or its key is refused.
        if (!comes_after_creation(failure.status) || vdc_getpwnam(name.c_str()) == nullptr) throw;
        cmi_security_common_user_delete(0, name.c_str(), security_cmi_username, security_cmi_session_id);
        if (vdc_getpwnam(name.c_str()) != nullptr) failure.remedy += "; the account stays without it";
        throw;
    }
    return show_one(name);
}

Answer set(const Arguments& arguments) {
    const std::string& name = checked(arguments["NAME"]);
    require_success(vdc_getpwnam(name.c_str()) == nullptr ? SECURITY_ERR_NOT_FOUND : SECURITY_OK,
                    object(name), "change");
    const std::string* date = arguments.find(kNewExpiry.name);
    const bool password = arguments.has(kNewPassword.name) || arguments.has(kPasswordStdin.name) ||
                          arguments.has(kHashStdin.name);
    if (!date && !password && !arguments.find(kKey.name)) {
        throw Failure{Exit::kUsage, object(name), object(name) + ": there is nothing to set",
                      "see quillsec user set --help"};
    }
    Frame frame;
    begin(name, frame);
    common_user_record& user = frame.body.user;
    if (password) take_password(name, arguments, user);
    take_key(name, arguments, user);
    const bool never = date && folded(*date) == "never";
    if (date && !never) take_expiry(*date, user);
    // Beside a hashed password, an expiry to clear is not told from one that is not given.
    const bool apart = never && password && user.password_format == SECURITY_PASSWORD_STORED;
    if (never && !apart) user.expiry_year = user.expiry_month = user.expiry_day = 0;
    try {
        request(name, SET_REQ, frame, "change");
        if (apart) {
            Frame expiry;
            begin(name, expiry);
            expiry.body.user.expiry_year = expiry.body.user.expiry_month = expiry.body.user.expiry_day = 0;
            request(name, SET_REQ, expiry, "change");
        }
    } catch (Failure& failure) {
        // Each wish has a request of its own, and those before this one are done.
        const int wishes = (date != nullptr) + password + arguments.has(kKey.name);
        if (wishes > 1) failure.remedy += fmt::format("; 'quillsec user show {}' tells what is done", name);
        throw;
    }
    return show_one(name);
}

Answer remove(const Arguments& arguments) {
    const std::string& name = checked(arguments["NAME"]);
    Frame frame;
    begin(name, frame);
    request(name, DEL_REQ, frame, "delete");
    if (vdc_getpwnam(name.c_str()) != nullptr) {
        // A request that was not delivered passes for done; asking for something else tells why.
        uint32_t value = 0;
        require_success(status_of(cmi_enable_info_config(0, GET_REQ, SECURITY_SERVICE_SSH, &value)),
                        object(name), "delete");
        throw Failure{Exit::kFailed, object(name), object(name) + " is still there", "try again"};
    }
    return Remark{"deleted", {name, printable(object(name) + ": deleted")}};
}

std::string notes() {
    return "A NAME is that of the virtual device context in which quillsec runs (SYSMGR_VDC_ID). Passwords\n"
           "are asked for at the terminal, or read from standard input: on the command line others could\n"
           "see them. delete removes the account with its home, roles, locales and key.\n\n"
           "With --json: {\"users\": [{\"name\", \"uid\", \"vdc\", \"expires\", \"internal\", \"roles\",\n"
           "  \"locales\", \"key\"}, ...]}: expires is \"year-month-day\", or null for never and where it\n"
           "  cannot be read; internal and key are booleans; roles and locales are lists of names.";
}

constexpr Verb kVerbs[] = {
    {"show", "show the users, or one", {{"NAME", "the user", Argument::kOptional}}, show},
    {"add",
     "create a user",
     {{"NAME", "the user"},
      {"--role", "a role to begin with", Argument::kOptional, "ROLE"},
      kExpires,
      kKey,
      kPasswordStdin,
      kHashStdin,
      kNoPassword},
     add},
    {"set",
     "change a user's password, expiry date or key",
     {{"NAME", "the user"}, kNewExpiry, kKey, kNewPassword, kPasswordStdin, kHashStdin},
     set},
    {"delete", "delete a user and all that is his", {{"NAME", "the user"}}, remove},
};
}  // namespace

const Noun kUser{"user", "users: accounts, passwords, expiry dates and keys", notes, kVerbs};

}  // namespace quill::cli
