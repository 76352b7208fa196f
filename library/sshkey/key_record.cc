// Handlers of the SSH keys of users: one record for each user name and format, each format with its
// own table.
//
// A user has one key. The key in the other format is deleted first, so a failure leaves no key rather
// than two.
#include "base/tables.h"
#include "base/text_field.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// The differences between the two formats.
struct Format {
    uint32_t table;
    uint32_t other_table;
    bool traces_store;
};

constexpr Format kOneLine{kSshKeysTable, kSshKeyFilesTable, false};
constexpr Format kWholeFile{kSshKeyFilesTable, kSshKeysTable, true};

// The value is the whole field, whatever the length of its text.
Run value_of(ssh_key_rec& record) { return {record.key_text, sizeof record.key_text}; }
Run value_of(ssh_key_new_rec& record) {
    return {record.key_text, sizeof record.key_text + sizeof record.key_format};
}

using Name = char[kNameField];

uint32_t set(const Format& format, uint32_t handle, const Name& user_name, Run value) {
    trace("SSH Key SET operation for user:%s", user_name);
    trace("DELETE operation for user:%s", user_name);
    const uint32_t status = no_key_as(SECURITY_OK, erase(handle, Key(format.other_table, user_name)));
    if (status != SECURITY_OK) return status;
    if (format.traces_store) trace("SET operation for user:%s", user_name);
    return store(handle, Key(format.table, user_name), value);
}

uint32_t serve(const Format& format, uint32_t handle, uint32_t operation, Name& user_name, Run value) {
    if (is_record_operation(operation) && !terminated(user_name)) return SECURITY_ERR_REQUEST_TEXT;
    const Key key(format.table, user_name);
    switch (operation) {
    case GET_REQ:
        trace("SSH key GET operation for user:%s", user_name);
        return no_key_as(SECURITY_ERR_NOT_FOUND, fetch(handle, key, value));
    case GETNEXT_REQ:
        trace("SSH key GETNEXT for user:%s", user_name);
        return fetch_next(handle, key, user_name, value, SECURITY_ERR_END_OF_TABLE);
    case SET_REQ:
        return set(format, handle, user_name, value);
    case DEL_REQ:
        trace("DELETE operation for user:%s", user_name);
        return no_key_as(SECURITY_ERR_NOT_FOUND, erase(handle, key));
    }
    return SECURITY_OK;  // any other operation does nothing
}

template <class Record>
uint32_t config(const Format& format, uint32_t handle, uint32_t operation, Record& record) {
    const uint32_t status = serve(format, handle, operation, record.user_name, value_of(record));
    trace("status for the operation:%s", status_text(status));
    return status;
}

}  // namespace
}  // namespace quill

uint32_t security_user_ssh_key_config(uint32_t handle, uint32_t operation, ssh_key_rec* record) {
    return quill::config(quill::kOneLine, handle, operation, *record);
}

uint32_t security_user_ssh_key_new_config(uint32_t handle, uint32_t operation, ssh_key_new_rec* record) {
    return quill::config(quill::kWholeFile, handle, operation, *record);
}
