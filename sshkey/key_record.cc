// The SSH key of a user: one record a user name, in one of two formats, each with a table of its own.
//
// A user has one key. Storing it in one format deletes it from the other table first, so that a failure
// between the two leaves the user without a key and never with two.
#include "common/store_access.h"
#include "common/text_field.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// What differs between the two formats.
struct Format {
    uint32_t table;
    uint32_t other_table;
    bool traces_store;
};

constexpr Format kOneLine{6, 21, false};
constexpr Format kWholeFile{21, 6, true};

// A key's value has the length of its field, whatever the length of the text in it.
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
    if (touches_record(operation) && !terminated(user_name)) return SECURITY_ERR_REQUEST_TEXT;
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
    return SECURITY_OK;  // other operations touch nothing
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
