#include "daemon/change_words.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "base/byte_order.h"
#include "base/name_list.h"
#include "daemon/account_files.h"
#include "platform/service.h"
#include "quillsecurity.h"

namespace quill {
namespace {

template <class Record>
const Record& as(const void* record) {
    return *static_cast<const Record*>(record);
}

template <size_t size>
std::string text_of(const char (&field)[size]) {
    return log_safe({field, strnlen(field, size)});
}

// One name of a list, without the characters that separate names.
template <size_t size>
std::string word_of(const char (&field)[size]) {
    std::string word = text_of(field);
    std::ranges::replace_if(
        word, [](char c) { return c == ' ' || c == ','; }, '.');
    return word;
}

template <size_t size>
std::string quoted(const char (&field)[size]) {
    return std::string("'").append(text_of(field)).append("'");
}

// "0 to 1", or "set to 1" if the old value is not known.
std::string from_to(const Change& change, std::string (*value_of)(const void* record)) {
    const std::string before = change.stored != nullptr ? value_of(change.stored) + " to " : "set to ";
    return before + value_of(change.record);
}

// ---- Records that are secret, or replaced as a whole: their values are not shown.

template <class Record>
std::string user_of(const void* record) {
    return quoted(as<Record>(record).user_name);
}

Phrase replaced(const Change& change) {
    if (change.operation == SET_REQ) return {"changed", "change"};
    return {"deleted", "deletion"};
}

std::string user_record(const void* record) {
    return "user record of " + user_of<security_user>(record) +
           (as<security_user>(record).user_type == 1 ? " (type 1)" : "");
}

std::string secret(const void* record) {
    return "secret of level " + std::to_string(as<security_priv_info>(record).priv_lvl);
}

std::string password(const void* record) { return "password of " + user_of<security_passwd>(record); }

// Both key formats begin with the name.
std::string ssh_key(const void* record) { return "SSH key of " + user_of<ssh_key_rec>(record); }

// ---- Services, ports and the banner, with their old and new values.

std::string service(const void* record) {
    const uint32_t code = as<security_enable_info>(record).code;
    const char* name = enable_info_to_str(static_cast<int32_t>(code));
    return "service " + (name != nullptr ? name : std::to_string(code));
}

Phrase service_value(const Change& change) {
    if (change.operation != SET_REQ) return {};  // values of services are never removed
    return from_to(change,
                   [](const void* record) { return std::to_string(as<security_enable_info>(record).value); });
}

std::string delimiter(const void*) { return "banner delimiter"; }

Phrase delimiter_value(const Change& change) {
    if (change.operation == DEL_REQ) return replaced(change);
    return from_to(change, [](const void* record) {
        const auto byte = as<unsigned char>(record);
        if (byte > ' ' && byte < 127) return std::string(1, static_cast<char>(byte));
        return "byte " + std::to_string(byte);
    });
}

std::string web_server(const void*) { return "web server"; }

// "http port 80 to 8080, https port 443, switch 0 to 1"
Phrase web_settings(const Change& change) {
    if (change.operation != SET_REQ) return {};
    constexpr const char* kNames[] = {"http port ", "https port ", "switch "};
    uint32_t words[3], old_words[3];
    memcpy(words, change.record, sizeof words);
    memcpy(old_words, change.stored != nullptr ? change.stored : change.record, sizeof old_words);
    std::string text;
    for (size_t i = 0; i < std::size(kNames); ++i) {
        const std::string value = std::to_string(big_endian(words[i]));
        const std::string old_value = std::to_string(big_endian(old_words[i]));
        text.append(i == 0 ? "" : ", ").append(kNames[i]);
        if (value != old_value) text.append(old_value).append(" to ");
        text.append(value);
    }
    return text;
}

// "received", not "stored": a certificate that the stored key does not fit waits for its key.
Phrase web_text(const Change& change) {
    const auto& text = as<nginx_cert_rec>(change.record);
    const std::string what = text.item == SECURITY_WEB_CERTIFICATE ? "certificate" : "key";
    if (change.operation == DEL_REQ) return {what + " deleted", "deletion of the " + what};
    if (text.enable == 0) return {what + " received", "change of the " + what};
    return {"certificate and key put into use", "use of the certificate and key"};
}

std::string self_tests(const void*) { return "self-tests"; }

Phrase self_test_run(const Change& change) {
    return change.operation == SET_REQ ? Phrase{std::string("run")} : Phrase{};
}

// ---- Lists of names, with their differences.

using Names = std::vector<std::string>;

template <size_t slots>
Names names_of(const char (&names)[slots][65], int32_t count) {
    Names result;
    for (int32_t i = 0; i < std::clamp<int32_t>(count, 0, slots); ++i) result.push_back(word_of(names[i]));
    return result;
}

std::string roles(const void* record) { return "roles of " + user_of<NameList>(record); }
std::string locales(const void* record) { return "locales of " + user_of<NameList>(record); }

std::string joined(const Names& names, const char* before_each = "") {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + (before_each + name);
    return text;
}

// Returns the names that are not among `others`.
Names missing(const Names& names, const Names& others) {
    Names result;
    std::copy_if(names.begin(), names.end(), std::back_inserter(result), [&others](const std::string& name) {
        return std::find(others.begin(), others.end(), name) == others.end();
    });
    return result;
}

Phrase list_change(const Change& change) {
    const auto& list = as<NameList>(change.record);
    const Names names = names_of(list.names, list.count);
    if (change.operation == DEL_REQ) return joined(names, "-");
    if (change.stored == nullptr)
        return names.empty() ? Phrase{"emptied", "emptying"} : "set to " + joined(names);
    const auto& stored = as<NameList>(change.stored);
    const Names old_names = names_of(stored.names, stored.count);
    const Names added = missing(names, old_names), removed = missing(old_names, names);
    if (added.empty() && removed.empty())
        return names == old_names ? Phrase{"unchanged", "change"} : Phrase{"put in another order", "change"};
    const char* between = added.empty() || removed.empty() ? "" : ", ";
    return joined(added, "+") + between + joined(removed, "-");
}

// ---- Accounts.

std::string account(const void* record) { return "account " + user_of<security_user_manage>(record); }

// " (password, expiry 2031-2-28)": what a request sets.
std::string settings_of(const security_user_manage& wish) {
    Names parts;
    if (wish.password[0] != '\0') parts.emplace_back("password");
    if (wish.expiry[0] != '\0') parts.push_back("expiry " + text_of(wish.expiry));
    const Names roles = names_of(wish.roles, wish.num_roles);
    if (!roles.empty()) parts.push_back("roles " + joined(roles));
    return parts.empty() ? "" : " (" + joined(parts) + ")";
}

Phrase account_change(const Change& change) {
    if (change.operation == DEL_REQ) return {"deleted", "deletion"};
    const auto& wish = as<security_user_manage>(change.record);
    const std::string name(wish.user_name, strnlen(wish.user_name, sizeof wish.user_name));
    const bool exists = find_account(security_get_system_username(name.c_str())).passwd;
    const std::string what = settings_of(wish);
    return exists ? Phrase{"changed" + what, "change" + what} : Phrase{"created" + what, "creation" + what};
}

// ---- Key pairs of users.

std::string key_pair(const void* record) {
    const auto& command = as<ssh_key_cmd_rec>(record);
    constexpr uint32_t kDsa[] = {SECURITY_KEY_PAIR_GENERATE_DSA, SECURITY_KEY_PAIR_IMPORT_DSA,
                                 SECURITY_KEY_PAIR_EXPORT_DSA, SECURITY_KEY_PAIR_DELETE_DSA,
                                 SECURITY_KEY_PAIR_SIZE_DSA};
    const bool dsa = std::find(std::begin(kDsa), std::end(kDsa), command.kind) != std::end(kDsa);
    return (dsa ? "DSA key pair of " : "RSA key pair of ") + quoted(command.user_name);
}

Phrase key_pair_change(const Change& change) {
    const auto& command = as<ssh_key_cmd_rec>(change.record);
    switch (command.kind) {
    case SECURITY_KEY_PAIR_GENERATE_RSA:
    case SECURITY_KEY_PAIR_GENERATE_DSA:
        return {"generated", "generation"};
    case SECURITY_KEY_PAIR_IMPORT_RSA:
    case SECURITY_KEY_PAIR_IMPORT_DSA:
        return {"imported", "import"};
    case SECURITY_KEY_PAIR_EXPORT_RSA:
    case SECURITY_KEY_PAIR_EXPORT_DSA:
        return {"exported", "export"};
    }
    return replaced(change);
}

std::string orphans(const void*) { return "records of users without an account"; }

// ---- One row for each request type that can change something.

constexpr Description kDescriptions[] = {
    {SECURITY_ENABLE_INFO_REQUEST, true, service, service_value},
    {SECURITY_USER_REQUEST, false, user_record, replaced},
    {SECURITY_PRIV_INFO_REQUEST, false, secret, replaced},
    {SECURITY_USER_MANAGE_REQUEST, false, account, account_change},
    {SECURITY_PASSWD_REQUEST, false, password, replaced},
    {SECURITY_ROLE_ASSIGN_REQUEST, true, roles, list_change},
    {SECURITY_ROLES_REQUEST, true, roles, list_change},
    {SECURITY_LOCALE_ASSIGN_REQUEST, true, locales, list_change},
    {SECURITY_SSHKEY_FILE_REQUEST, false, ssh_key, replaced},
    {SECURITY_USER_LOOKUP_REQUEST, false, ssh_key, replaced},
    {SECURITY_SSHKEY_REQUEST, false, key_pair, key_pair_change},
    {SECURITY_SSHKEY_TRANSFER_REQUEST, false, key_pair, key_pair_change},
    {SECURITY_BANNER_REQUEST, true, delimiter, delimiter_value},
    {SECURITY_NGINX_PORT_REQUEST, true, web_server, web_settings},
    {SECURITY_NGINX_CERT_REQUEST, false, web_server, web_text},
    {SECURITY_ORPHANS_REQUEST, false, orphans, replaced},
    {SECURITY_RESULT_REQUEST, false, self_tests, self_test_run},
};

}  // namespace

const Description* find_description(uint32_t type) {
    const auto* row = std::find_if(std::begin(kDescriptions), std::end(kDescriptions),
                                   [type](const Description& d) { return d.type == type; });
    return row == std::end(kDescriptions) ? nullptr : row;
}

}  // namespace quill
