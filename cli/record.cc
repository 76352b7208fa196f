// quillsec record: user records as they are stored, names and passwords, in two tables by type.
#include <fmt/format.h>

#include <algorithm>

#include "base/text_field.h"
#include "cli/command.h"
#include "cli/encoding.h"
#include "cli/exchange.h"
#include "cli/line.h"
#include "cli/secret_input.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {
constexpr Argument kType{"--type", "1 for the second table, any other for the first; 0 if not given",
                         Argument::kOptional, "N"};

using Record = Wiped<security_user>;

constexpr size_t kLongestName = sizeof(security_user::user_name) - 1;
constexpr size_t kLongestPassword = sizeof(security_user::password) - 1;

std::string object(const std::string& name) { return fmt::format("user record '{}'", name); }

void take_name(const std::string& name, Record& record) {
    if (name.empty() || name.size() > kLongestName) {
        throw Failure{Exit::kInvalidValue, object(name),
                      fmt::format("{}: the name is not valid", object(name)),
                      fmt::format("use 1 to {} bytes", kLongestName)};
    }
    std::copy(name.begin(), name.end(), record.user_name);
}

uint32_t type_of(const Arguments& arguments) {
    const std::string* text = arguments.find(kType.name);
    if (!text) return 0;
    const auto type = number(*text, 0, UINT32_MAX);
    if (type) return *type;
    throw Failure{Exit::kInvalidValue, "option '--type'",
                  fmt::format("option '--type': value '{}' is not valid", *text), "use a number"};
}

uint32_t encoding_of(const Arguments& arguments) {
    const std::string* text = arguments.find("--encoding");
    if (!text) return SECURITY_ENCRYPTION_CLEAR;
    const auto encoding = encoding_named(*text);
    if (encoding && *encoding != SECURITY_ENCRYPTION_CLEAR) return *encoding;
    throw Failure{Exit::kInvalidValue, "option '--encoding'",
                  fmt::format("option '--encoding': value '{}' is not valid", *text), "use cipher or hash"};
}

Table table_of_records(bool with_passwords) {
    Table table{"records", {"name", "type", "encoding"}, {}};
    if (with_passwords) table.columns.push_back("password");
    return table;
}

// A password that arrives in clear is stored as cipher text; any other encoding is the stored one.
std::string stored_encoding(const Record& record) {
    if (record.encryption_type == SECURITY_ENCRYPTION_CLEAR) return encoding_name(SECURITY_ENCRYPTION_CIPHER);
    return encoding_name(record.encryption_type);
}

std::vector<Cell> row(const Record& record, bool with_password) {
    std::vector<Cell> cells{field_text(record.user_name), record.user_type, stored_encoding(record)};
    if (with_password) cells.push_back(field_text(record.password));
    return cells;
}

// The reply for a record whose password cannot be decoded has no other fields.
std::vector<Cell> undecoded_row(Cell name, uint32_t type, bool with_password) {
    std::vector<Cell> cells{std::move(name), type, {nullptr, "cannot be decoded"}};
    if (with_password) cells.push_back({nullptr, ""});
    return cells;
}

Answer show_one(const std::string& name, uint32_t type, bool with_password) {
    Table table = table_of_records(with_password);
    Record record;
    take_name(name, record);
    record.user_type = type;
    const uint32_t status = status_of(cmi_security_user_config(0, GET_REQ, &record));
    if (status == SECURITY_ERR_CRYPT) {
        table.rows.push_back(undecoded_row(name, type, with_password));
        return table;
    }
    require_success(status, object(name), "read");
    table.rows.push_back(row(record, with_password));
    return table;
}

Answer show_all(uint32_t type, bool with_passwords) {
    Table table = table_of_records(with_passwords);
    Record record;
    for (std::string last;; last = field_text(record.user_name)) {
        record.user_type = type;  // the reply has replaced it by the stored type
        // SECURITY_ERR_CRYPT comes with the record, whose name is needed to go on. The same name again would
        // be an endless loop.
        const uint32_t status = ask(SECURITY_USER_REQUEST, GETNEXT_REQ, &record, sizeof record);
        if (status == SECURITY_ERR_END_OF_TABLE) return table;
        const std::string name = field_text(record.user_name);
        if (status != SECURITY_ERR_CRYPT || name == last) require_success(status, "user records", "read");
        table.rows.push_back(status == SECURITY_OK ? row(record, with_passwords)
                                                   : undecoded_row(name, type, with_passwords));
    }
}

Answer show(const Arguments& arguments) {
    const std::string* name = arguments.find("NAME");
    const uint32_t type = type_of(arguments);
    const bool with_passwords = arguments.has("--show-password");
    return name ? show_one(*name, type, with_passwords) : show_all(type, with_passwords);
}

Answer set(const Arguments& arguments) {
    const std::string& name = arguments["NAME"];
    Record record;
    take_name(name, record);
    record.user_type = type_of(arguments);
    record.encryption_type = encoding_of(arguments);
    {
        Line password;
        read_secret({object(name), "password", kLongestPassword, true}, arguments, password);
        memcpy(record.password, password.bytes, password.length);
    }
    require_success(status_of(cmi_security_user_config(0, SET_REQ, &record)), object(name), "change");
    Table table = table_of_records(false);
    table.rows.push_back(row(record, false));
    return table;
}

Answer remove(const Arguments& arguments) {
    const std::string& name = arguments["NAME"];
    Record record;
    take_name(name, record);
    record.user_type = type_of(arguments);
    const uint32_t status = status_of(cmi_security_user_config(0, DEL_REQ, &record));
    // The same message as for reading, which has another status.
    require_success(status == SECURITY_PSS_NO_KEY ? SECURITY_ERR_NOT_FOUND : status, object(name), "delete");
    return Remark{"deleted", {name, printable(fmt::format("{}: deleted", object(name)))}};
}

std::string notes() {
    return "A NAME is 1 to 127 bytes, and so is a password. It is asked for at the terminal or read with\n"
           "--stdin, and stored as cipher text, which can be read back. --encoding takes text that is\n"
           "encoded already; a hash cannot be read back.\n\n"
           "With --json: {\"records\": [{\"name\", \"type\", \"encoding\", \"password\"}, ...]}, where only\n"
           "  --show-password brings the password; from delete {\"deleted\": the name}. Encoding and\n"
           "  password are null for a password that cannot be decoded.";
}

constexpr Verb kVerbs[] = {
    {"show",
     "show all records of a table, or one",
     {{"NAME", "the user", Argument::kOptional},
      kType,
      {"--show-password", "show the passwords too", Argument::kFlag}},
     show},
    {"set",
     "create or replace a record",
     {{"NAME", "the user"},
      kType,
      kFromStdin,
      {"--encoding", "the password is encoded already: cipher or hash", Argument::kOptional, "ENCODING"}},
     set},
    {"delete", "delete a record", {{"NAME", "the user"}, kType}, remove},
};
}  // namespace

const Noun kRecord{"record", "user records: names and passwords as they are stored", notes, kVerbs};

}  // namespace quill::cli
