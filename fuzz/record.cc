// The handlers of all records except users' keys, with sequences of arbitrary requests to a store that may be
// damaged or fail: keys and values have the formats and sizes of their tables, and texts of replies are
// terminated.
#include <string>

#include "base/byte_order.h"
#include "base/text_field.h"
#include "fuzz/input.h"
#include "library/common/store_access.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

bool damaged;  // the store has records that no handler wrote

bool reads(uint32_t operation) { return operation == GET_REQ || operation == GETNEXT_REQ; }

void service(Input& input, uint32_t operation) {
    auto value = input.word();
    enable_info_config(kHandle, operation, input.byte() % 32, &value);
}

void port(Input& input, uint32_t operation) {
    auto value = input.word();
    nginx_port_info_config(kHandle, static_cast<int32_t>(operation), input.byte() % 32, &value);
}

void banner(Input& input, uint32_t operation) {
    char delimiter = static_cast<char>(input.byte());
    security_banner_info_config(kHandle, operation, &delimiter);
}

void user(Input& input, uint32_t operation) {
    auto record = input.record<security_user>();
    const bool ends = !quill::is_record_operation(operation) || quill::terminated(record.user_name);
    const uint32_t status = security_user_config(kHandle, operation, &record);
    require(ends || status == SECURITY_ERR_REQUEST_TEXT);
    // A damaged store may have an unencoded password, which is not decoded.
    if (status == SECURITY_OK && reads(operation))
        require(quill::terminated(record.user_name) && (damaged || quill::terminated(record.password)));
}

void level(Input& input, uint32_t operation) {
    auto record = input.record<security_priv_info>();
    const bool clear = record.encryption_type == SECURITY_ENCRYPTION_TO_HASH;
    const uint32_t status = security_priv_info_config(kHandle, operation, &record);
    if (operation != SET_REQ || !clear || status != SECURITY_OK) return;
    require(record.encryption_type == SECURITY_ENCRYPTION_HASH);
    // The rest of the field keeps the caller's bytes, so the hash need not be terminated.
    const size_t length = strnlen(record.secret, sizeof record.secret);
    require(record.secret_len > 0 && static_cast<size_t>(record.secret_len) <= length);
}

void roles(Input& input, uint32_t operation) {
    auto record = input.record<security_user_roles>();
    const uint32_t status = security_user_roles_config(kHandle, operation, &record);
    if (status == SECURITY_OK && operation == GETNEXT_REQ) require(quill::terminated(record.user_name));
}

void locales(Input& input, uint32_t operation) {
    auto record = input.record<security_user_locales>();
    security_user_locales_config(kHandle, operation, &record);
}

void web_text(Input& input, uint32_t operation) {
    auto record = input.record<nginx_cert_rec>();
    const uint32_t status = security_nginx_ssh_key_config(kHandle, operation, &record);
    if (status == SECURITY_OK && operation == GET_REQ) require(quill::terminated(record.text));
}

constexpr void (*kHandlers[])(Input&, uint32_t) = {service, port,  banner,  user,
                                                   level,   roles, locales, web_text};
constexpr uint32_t kTables[] = {1, 5, 7, 20, 22, 27, 28, 30, 31, 32, 33};

// Stores an arbitrary value under a key of any table and length.
void damage(Input& input) {
    std::string key = be32(kTables[input.byte() % std::size(kTables)]);
    key += input.bytes(input.byte() % 4);
    key.resize(4 + input.byte() % 136);
    std::string value(input.half() % 4400, '\0');
    input.patch({reinterpret_cast<uint8_t*>(value.data()), value.size()});
    world().store[key] = value;
}

bool is_list(const std::string& value) {
    uint32_t count = 65;
    if (value.size() >= sizeof count) memcpy(&count, value.data(), sizeof count);
    return quill::big_endian(count) <= 64 && value.size() == 4 + quill::big_endian(count) * 65;
}

void check(const std::string& key, const std::string& value) {
    const bool number = key.size() == 8, name = key.size() == 132 && key.back() == '\0';
    switch (key[3]) {
    case 1:
    case 30:
    case 31:
        return require(number && value.size() == 4);
    case 5:
    case 7:
        return require(name && value.size() == 136);
    case 20:
    case 27:
        return require(name && is_list(value));
    case 22:
        return require(number && value.size() == 1104);
    case 28:
        return require(key.size() == 4 && value.size() == 1);
    case 32:
    case 33:
        return require(number && value.size() == 2100);
    }
    abort();
}

constexpr const char* kCalls[] = {"pss2_fetch",         "pss2_store",  "pss2_delete",  "pss2_move2key",
                                  "pss2_move2location", "pss2_getkey", "pss2_getvalue"};

}  // namespace

// Input: the store's function that fails (none if out of range), after how many calls; then requests:
// handler, operation, record. A handler number beyond the last damages the store.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world() = World();
    world().history = false;
    Input input(data, size);
    const uint8_t failing = input.byte(), after = input.byte();
    if (failing < std::size(kCalls)) {
        world().answer[kCalls[failing]] = 0x40480005;
        world().fail_after[kCalls[failing]] = after;
    }
    damaged = false;
    for (int requests = 0; !input.ended() && requests < 32; ++requests) {
        const size_t which = input.byte() % (std::size(kHandlers) + 1);
        const uint32_t operation = input.byte() % 6;
        world().calls.clear();
        if (which < std::size(kHandlers)) {
            kHandlers[which](input, operation);
        } else {
            damage(input);
            damaged = true;
        }
    }
    if (!damaged)
        for (const auto& [key, value] : world().store) check(key, value);
    return 0;
}
