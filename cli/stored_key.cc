#include "cli/stored_key.h"

#include <cstring>

#include "base/text_field.h"
#include "cli/exchange.h"
#include "cli/private_tmp.h"

namespace quill::cli {
namespace {

template <class Record>
uint32_t ask_record(security_request_type type, uint32_t operation, Record& record) {
    const uint32_t status = ask(type, operation, &record, sizeof record);
    terminate(record.user_name);
    terminate(record.key_text);
    return status;
}

StoredKey key_of(const ssh_key_rec& record) {
    return {record.user_name, SSHKEY_FMT_OPENSSH, first_line(record.key_text)};
}

StoredKey key_of(ssh_key_new_rec& record) {
    const Shared<ssh_key_rec> line;
    const Shared<uint32_t> status;
    with_private_tmp(
        [&](const std::string&) { *status = convert_other_ssh_key_to_openssh(&record, &*line); });
    return {record.user_name, record.key_format, *status == SECURITY_OK ? first_line(line->key_text) : ""};
}

template <class Record>
void add_all(std::vector<StoredKey>& keys) {
    Record record{};
    uint32_t status;
    while ((status = ask_record(SECURITY_USER_LOOKUP_REQUEST, GETNEXT_REQ, record)) == SECURITY_OK)
        keys.push_back(key_of(record));
    if (status != SECURITY_ERR_END_OF_TABLE) require_success(status, "SSH keys", "read");
}

}  // namespace

std::string key_object(const std::string& user) { return fmt::format("SSH key of user '{}'", user); }

uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_rec& record) {
    return ask_record(type, operation, record);
}

uint32_t ask_key(security_request_type type, uint32_t operation, ssh_key_new_rec& record) {
    return ask_record(type, operation, record);
}

std::string first_line(const char* text) {
    std::string line(text, strcspn(text, "\r\n"));
    return line.erase(line.find_last_not_of(" \t") + 1);
}

std::vector<StoredKey> stored_keys() {
    std::vector<StoredKey> keys;
    add_all<ssh_key_rec>(keys);
    add_all<ssh_key_new_rec>(keys);
    std::ranges::sort(keys, {}, &StoredKey::user);
    return keys;
}

StoredKey stored_key(const std::string& user) {
    auto record = key_record_of<ssh_key_rec>(user);
    uint32_t status = ask_key(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, record);
    if (status == SECURITY_OK) return key_of(record);
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, key_object(user), "read");
    auto other = key_record_of<ssh_key_new_rec>(user);
    status = ask_key(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, other);
    require_success(status, key_object(user), "read");
    return key_of(other);
}

}  // namespace quill::cli
