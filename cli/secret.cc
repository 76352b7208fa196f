// quillsec secret: the secrets of privilege levels 1 to 15. They are set, verified and deleted, and never
// shown.
#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "base/dictionary.h"
#include "cli/command.h"
#include "cli/encoding.h"
#include "cli/line.h"
#include "cli/quiet.h"
#include "cli/secret_input.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {
constexpr uint32_t kLowest = 1;
constexpr uint32_t kHighest = 15;

using Record = Wiped<security_priv_info>;

constexpr long kFewestCharacters = 12;
constexpr Argument kAcceptWeak{"--accept-weak", "set it even if it is easy to guess, or cannot be checked",
                               Argument::kFlag};

std::string object(const std::string& level) { return fmt::format("privilege level '{}'", level); }
std::string object(uint32_t level) { return fmt::format("privilege level {}", level); }

uint32_t level_of(const std::string& text) {
    const auto level = number(text, kLowest, kHighest);
    if (level) return *level;
    throw Failure{Exit::kInvalidValue, object(text), fmt::format("{} is not valid", object(text)),
                  fmt::format("use {} to {}", kLowest, kHighest)};
}

Table table_of_secrets() { return {"secrets", {"level", "secret", "encryption"}, {}}; }

std::vector<Cell> row_set(uint32_t level, const Record& record) {
    return {level, "set", encoding_name(static_cast<uint32_t>(record.encryption_type))};
}

std::vector<Cell> row_not_set(uint32_t level) { return {level, {nullptr, "not set"}, {nullptr, ""}}; }

std::vector<Cell> stored_row(uint32_t level) {
    Record record;
    record.priv_lvl = static_cast<int32_t>(level);
    const uint32_t status = status_of(cmi_security_priv_info_config(0, GET_REQ, &record));
    if (status == SECURITY_ERR_NO_PRIV_LVL) return row_not_set(level);
    require_success(status, object(level), "read");
    return row_set(level, record);
}

Answer show(const Arguments& arguments) {
    const std::string* one = arguments.find("LEVEL");
    const uint32_t first = one ? level_of(*one) : kLowest;
    const uint32_t last = one ? first : kHighest;
    Table table = table_of_secrets();
    for (uint32_t level = first; level <= last; ++level) table.rows.push_back(stored_row(level));
    return table;
}

// The stored hash is one round of MD5, cut to 64 bits: with the store one can try billions of secrets in a
// second. Only a secret that is hard to guess withstands that.
void refuse_weak(uint32_t level, const char* secret) {
    const std::string_view text(secret);
    const auto characters = std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; });
    DictionaryResult result{DictionaryResult::kWeak, "it is too short"};
    if (characters >= kFewestCharacters) {
        const QuietStandardError quiet;
        result = check_dictionary(secret);
    }
    if (result.outcome == DictionaryResult::kAccepted) return;
    if (result.outcome == DictionaryResult::kNoDictionary)
        throw no_dictionary(object(level), "secret", fmt::format(", or add {}", kAcceptWeak.name));
    throw Failure{Exit::kInvalidValue, object(level),
                  fmt::format("{}: the secret is easy to guess: {}", object(level), result.reason),
                  fmt::format("choose another of {} characters or more, or add {}", kFewestCharacters,
                              kAcceptWeak.name)};
}

// The field behind the secret is zero, and all of it is sent.
Answer set(const Arguments& arguments) {
    const uint32_t level = level_of(arguments["LEVEL"]);
    Record record;
    {
        Line secret;
        read_secret({object(level), "secret", sizeof record.secret - 1, true}, arguments, secret);
        memcpy(record.secret, secret.bytes, secret.length);
        record.secret_len = static_cast<int32_t>(secret.length);
    }
    if (!arguments.has(kAcceptWeak.name)) refuse_weak(level, record.secret);
    record.priv_lvl = static_cast<int32_t>(level);
    record.encryption_type = SECURITY_ENCRYPTION_TO_HASH;
    require_success(status_of(cmi_security_priv_info_config(0, SET_REQ, &record)), object(level), "change");
    Table table = table_of_secrets();
    table.rows.push_back(row_set(level, record));
    return table;
}

Answer verify(const Arguments& arguments) {
    const uint32_t level = level_of(arguments["LEVEL"]);
    Line secret;
    read_secret({object(level), "secret", kLongestLine, false}, arguments, secret);
    uint32_t matched = 0;
    const uint32_t status = status_of(security_verify_priv_level_secret(
        0, secret.bytes, static_cast<uint32_t>(secret.length), static_cast<int32_t>(level), &matched));
    if (status == SECURITY_ERR_CRYPT) {
        return {Remark{"verified", {false, fmt::format("{}: this is not its secret", object(level))}},
                Exit::kFailed};
    }
    require_success(status, object(level), "verify");
    return Remark{"verified", {true, fmt::format("{}: this is its secret", object(level))}};
}

Answer delete_all(const Arguments& arguments) {
    const std::string whose = "all privilege levels";
    if (!arguments.has("--yes")) {
        const Terminal terminal;
        if (!terminal.found()) {
            throw Failure{Exit::kUsage, whose, whose + ": there is no terminal to ask whether to delete them",
                          "add --yes"};
        }
        if (!terminal.confirms("delete the secrets of " + whose + "?")) {
            throw Failure{Exit::kFailed, whose, whose + ": nothing was deleted", "answer yes to delete them"};
        }
    }
    require_success(status_of(cmi_security_vsh_callback_priv_info_cleanup(0)), whose, "delete");
    Table table = table_of_secrets();
    for (uint32_t level = kLowest; level <= kHighest; ++level) table.rows.push_back(row_not_set(level));
    return table;
}

Answer delete_one(uint32_t level) {
    Record record;
    record.priv_lvl = static_cast<int32_t>(level);
    const uint32_t status = status_of(cmi_security_priv_info_config(0, DEL_REQ, &record));
    // The same message as for reading, which has another status.
    require_success(status == SECURITY_PSS_NO_KEY ? SECURITY_ERR_NO_PRIV_LVL : status, object(level),
                    "delete");
    Table table = table_of_secrets();
    table.rows.push_back(row_not_set(level));
    return table;
}

Answer remove(const Arguments& arguments) {
    const std::string* level = arguments.find("LEVEL");
    const bool all = arguments.has("--all");
    if (all == (level != nullptr)) {
        const std::string object = "argument 'LEVEL'";
        throw Failure{Exit::kUsage, object,
                      fmt::format("secret delete: {}",
                                  all ? "LEVEL and --all exclude each other" : "LEVEL or --all is missing"),
                      "usage: quillsec secret delete LEVEL, or quillsec secret delete --all [--yes]"};
    }
    return all ? delete_all(arguments) : delete_one(level_of(*level));
}

std::string notes() {
    return "A LEVEL is 1 to 15. A secret is 1 to 1023 bytes without a newline or NUL. It is typed at\n"
           "the terminal or read with --stdin; on the command line others could see it. It is stored as a\n"
           "salted hash, which can be verified but not shown. With the hash, a weak secret can be guessed: so\n"
           "set refuses a secret of less than 12 characters and one that the dictionary of passwords makes\n"
           "easy to guess, unless --accept-weak is given.\n\n"
           "verify ends with 0 if it is the level's secret, with 1 if it is not, and with 3 if the level has\n"
           "none.\n\n"
           "With --json: {\"secrets\": [{\"level\", \"secret\", \"encryption\"}, ...]}, where secret is\n"
           "  \"set\" or null and encryption \"hash\", \"cipher\", \"clear\" or null; from verify\n"
           "  {\"verified\": true or false}.";
}

constexpr Verb kVerbs[] = {
    {"show", "show which levels have a secret", {{"LEVEL", "one level", Argument::kOptional}}, show},
    {"set", "give a level a new secret", {{"LEVEL", "1 to 15"}, kFromStdin, kAcceptWeak}, set},
    {"verify", "say whether a secret is that of a level", {{"LEVEL", "1 to 15"}, kFromStdin}, verify},
    {"delete",
     "delete the secret of a level, or of all",
     {{"LEVEL", "1 to 15", Argument::kOptional},
      {"--all", "all levels", Argument::kFlag},
      {"--yes", "do not ask before --all", Argument::kFlag}},
     remove},
};
}  // namespace

const Noun kSecret{"secret", "secrets of privilege levels", notes, kVerbs};

}  // namespace quill::cli
