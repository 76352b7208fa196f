// Client functions for SSH keys: sending a key file, and commands about a user's own key pair.
#include <unistd.h>

#include <cstring>

#include "base/file_location.h"
#include "base/text_field.h"
#include "library/common/request.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kCommandTimeout = 180;  // seconds

struct KeyFile {
    ssh_key_rec record{};
    ssh_key_new_rec new_record{};
    uint8_t format = SSHKEY_FMT_OPENSSH;
};

uint32_t read_key_file(char* path, const char* user_name, int32_t location_type, KeyFile& key) {
    const auto read = [&](const char* whole_path) {
        return copy_sshkey_file_content(whole_path, user_name, &key.record, &key.new_record, &key.format);
    };
    if (location_type == SECURITY_LOCATION_TEMPORARY) {
        const uint32_t status = read(path);
        unlink(path);  // a temporary copy is deleted on failure too
        return status;
    }
    const Device* device = device_of(location_type);
    if (device == nullptr) {
        trace("Security URI unknown type: %d", location_type);
        return SECURITY_ERR_URI_TYPE;
    }
    char whole_path[kFilePath];
    complete_path(*device, path, whole_path);
    return read(whole_path);
}

template <class Record>
uint32_t send_key(uint32_t operation, const Record& record, uint32_t connection) {
    return send(SECURITY_SSHKEY_FILE_REQUEST, operation, &record, sizeof record, nullptr, connection);
}

// Returns true for the commands that import or export a key pair.
bool is_transfer(uint32_t kind) {
    return kind >= SECURITY_KEY_PAIR_IMPORT_RSA && kind <= SECURITY_KEY_PAIR_EXPORT_DSA;
}

}  // namespace
}  // namespace quill

uint32_t security_sshkey_send(char* path, const char* user_name, int32_t location_type, uint32_t operation,
                              uint32_t connection) {
    using namespace quill;
    KeyFile key;
    const uint32_t status = read_key_file(path, user_name, location_type, key);
    if (status != SECURITY_OK) return status;
    return key.format == SSHKEY_FMT_OPENSSH ? send_key(operation, key.record, connection)
                                            : send_key(operation, key.new_record, connection);
}

uint32_t cmi_user_sshkey_config(uint32_t connection, uint32_t operation, uint32_t kind, const char* user_name,
                                const char* first_text, const char* second_text, uint32_t* value) {
    using namespace quill;
    trace("cmi_user_sshkey_config");
    if (user_name == nullptr) return UINT32_MAX;
    ssh_key_cmd_rec record{};
    record.kind = kind;
    record.value = *value;
    set_text(record.user_name, user_name);
    if (is_transfer(kind)) {
        if (first_text != nullptr) set_text(record.first_text, first_text);
        if (second_text != nullptr) set_text(record.second_text, second_text);
    }
    const RequestTimeout wait(kCommandTimeout);
    const uint32_t status =
        exchange(is_transfer(kind) ? SECURITY_SSHKEY_TRANSFER_REQUEST : SECURITY_SSHKEY_REQUEST, operation,
                 &record, sizeof record, connection);
    if (is_transfer(kind)) trace("cmi_user_sshkey_config: SSH Userkey Import/Export request");
    if (status == SECURITY_OK) *value = record.value;
    OPENSSL_cleanse(&record, sizeof record);  // it may hold a passphrase
    return status;
}
