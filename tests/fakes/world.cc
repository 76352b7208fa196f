#include "tests/fakes/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity/status.h"

// Weak, for tests that define their own.
#pragma weak security_cmi
#pragma weak security_cmi2
#pragma weak vsh_xml_parse_uri

World& world() {
    static World instance;
    return instance;
}

std::string be32(uint32_t word) {
    return {static_cast<char>(word >> 24), static_cast<char>(word >> 16), static_cast<char>(word >> 8),
            static_cast<char>(word)};
}

std::string number_key(uint32_t table, uint32_t number) { return be32(table) + be32(number); }

std::string name_key(uint32_t table, const std::string& name) {
    std::string key = be32(table) + name;
    key.resize(132);
    return key;
}

namespace {

// Keys and values that the store returned. The next call overwrites them, so that tests find uses after it.
struct HandedOut {
    std::string key, value;
    pss_descriptor key_descriptor{}, value_descriptor{};

    void spoil() {
        for (std::string* bytes : {&key, &value}) bytes->assign(bytes->size(), '\xee');
    }
} handed_out;

std::optional<std::string> cursor;  // the key that it is at

std::string bytes_of(const pss_descriptor* run) {
    return {static_cast<const char*>(run->bytes), run->length};
}

pss_descriptor* hand_out(std::string& slot, pss_descriptor& descriptor, const std::string& bytes) {
    slot = bytes;
    descriptor = {slot.data(), static_cast<uint32_t>(slot.size())};
    return &descriptor;
}

// Records the call. Returns the status that the test has set for it.
uint32_t begin(const char* name, const std::string& arguments = "") {
    World& w = world();
    handed_out.spoil();
    w.calls.push_back(arguments.empty() ? name : std::string(name) + " " + arguments);
    const auto found = w.answer.find(name);
    if (found == w.answer.end()) return SECURITY_OK;
    return w.fail_after[name]-- > 0 ? SECURITY_OK : found->second;
}

uint32_t begin(const char* name, uint32_t handle) {
    const uint32_t status = begin(name);
    return handle == kHandle ? status : PSS_BAD_HANDLE;
}

uint32_t begin_at_cursor(const char* name, uint32_t handle) {
    const uint32_t status = begin(name, handle);
    const bool stands = cursor && world().store.contains(*cursor);
    return status == SECURITY_OK && !stands ? SECURITY_PSS_NO_KEY : status;
}

uint32_t place(std::map<std::string, std::string>::const_iterator at) {
    if (at == world().store.end())
        cursor.reset();
    else
        cursor = at->first;
    return cursor ? SECURITY_OK : SECURITY_PSS_NO_KEY;
}

}  // namespace

uint32_t pss2_open(const char* name, uint32_t flags, uint32_t mode, uint32_t zero, const uint32_t* parameters,
                   uint32_t* status) {
    char arguments[128];
    snprintf(arguments, sizeof arguments, "%s %u %u %u [%x %x %x %x]", name, flags, mode, zero, parameters[0],
             parameters[1], parameters[2], parameters[3]);
    *status = begin("pss2_open", arguments);
    // A different handle for each attempt, to tell which one the caller received.
    return *status == SECURITY_OK ? kHandle : 1000 + flags;
}

uint32_t pss_version_set(uint32_t handle, uint32_t one, uint32_t version) {
    const uint32_t status = begin("pss_version_set", handle);
    if (status == SECURITY_OK && one == 1) world().version = version;
    return status;
}

pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status) {
    *status = begin("pss2_fetch", handle);
    if (*status != SECURITY_OK) return nullptr;
    const auto found = world().store.find(bytes_of(key));
    if (found == world().store.end()) *status = SECURITY_PSS_NO_KEY;
    if (*status != SECURITY_OK) return nullptr;
    return hand_out(handed_out.value, handed_out.value_descriptor, found->second);
}

uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value) {
    const uint32_t status = begin("pss2_store", handle);
    if (status == SECURITY_OK) world().store[bytes_of(key)] = bytes_of(value);
    return status;
}

uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count) {
    const uint32_t status = begin("pss2_delete", handle);
    if (status != SECURITY_OK) return status;
    if (count != 1) return PSS_BAD_ARGUMENT;
    return world().store.erase(bytes_of(key)) == 1 ? SECURITY_OK : SECURITY_PSS_NO_KEY;
}

uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status) {
    *status = begin("pss2_move2key", *handle);
    if (*status == SECURITY_OK && mode != 1) *status = PSS_BAD_ARGUMENT;
    if (*status != SECURITY_OK) return *status;
    const std::string wanted = bytes_of(key);
    place(world().store.lower_bound(wanted));
    *status = cursor == wanted ? SECURITY_OK : SECURITY_PSS_NO_KEY;
    return *status;
}

uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status) {
    *status = begin("pss2_move2location", *handle);
    if (*status == SECURITY_OK && (mode != 1 || location != 3)) *status = PSS_BAD_ARGUMENT;
    if (*status == SECURITY_OK)
        *status = cursor ? place(world().store.upper_bound(*cursor)) : SECURITY_PSS_NO_KEY;
    return world().move_result.value_or(*status);
}

pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status) {
    *status = begin_at_cursor("pss2_getkey", handle);
    if (*status != SECURITY_OK) return nullptr;
    return hand_out(handed_out.key, handed_out.key_descriptor, *cursor);
}

pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status) {
    *status = begin_at_cursor("pss2_getvalue", handle);
    if (*status != SECURITY_OK) return nullptr;
    return hand_out(handed_out.value, handed_out.value_descriptor, world().store[*cursor]);
}

const char* syserr2str(uint32_t status) {
    static char text[32];
    snprintf(text, sizeof text, "text of %x", status);
    return text;
}

uint32_t security_cmi_timeout = 60;
const char* security_cmi_username = nullptr;
uint32_t security_cmi_session_id = 0;

int32_t security_cmi(int32_t request_type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t connection) {
    World& w = world();
    const std::string record(static_cast<const char*>(request), *length);
    const auto scripted = w.replies.find(w.requests.size());
    const Reply& answer = scripted == w.replies.end() ? w.reply : scripted->second;
    w.requests.push_back({request_type, operation, record, connection, security_cmi_timeout});
    *length = 0;  // the library must not use it
    if (answer.status < 0) {
        errno = answer.error;
        return answer.status;
    }
    if (answer.missing || reply == nullptr) return answer.status;
    w.last_reply = answer.record.value_or(record);
    *reply = malloc(w.last_reply.size());
    if (*reply == nullptr) return -1;
    memcpy(*reply, w.last_reply.data(), w.last_reply.size());
    return answer.status;
}

int32_t security_cmi2(int32_t request_type, uint32_t operation, void* request, void**, uint32_t* length,
                      uint32_t connection) {
    const int32_t status = security_cmi(request_type, operation, request, nullptr, length, connection);
    world().requests.back().one_way = true;
    return status;
}

int32_t vsh_xml_parse_uri(const char* uri, char* device, char* path) {
    if (world().uri_result != 0) return world().uri_result;
    const std::string text = uri;
    const size_t colon = text.find(':');
    strcpy(device, colon == std::string::npos ? "" : text.substr(0, colon).c_str());
    strcpy(path, text.substr(colon + 1).c_str());
    return 0;
}

int32_t vshd_perm_group_role_name_verify(uint32_t, const char* role) {
    return std::ranges::find(world().roles, role) == world().roles.end() ? -1 : 0;
}

int32_t vshd_perm_locale_name_verify(uint32_t, const char* locale) {
    return std::ranges::find(world().locales, locale) == world().locales.end() ? -1 : 0;
}

uint32_t sdwrap_hist_event_subtype_check(uint32_t module, uint32_t subtype) {
    return world().history && module == 0x730000 && subtype == 102 ? 0 : 1;
}

uint32_t sdwrap_hist_event(uint32_t module, uint32_t length, const void* event) {
    if (module != 0x730000) return 1;
    const std::string bytes(static_cast<const char*>(event), length);
    world().events.push_back(bytes);
    world().traces.push_back(bytes.substr(4, bytes.size() - 5));
    return 0;
}

uint32_t sdwrap_chk_int(uint32_t subtype, uint32_t a, uint32_t b, uint32_t c) {
    return world().debug && subtype == 102 && a == 0 && b == 0 && c == 1 ? 1 : 0;
}

const char* sdwrap_dbg_modname = "fake module";

void buginf(uint32_t level, const char* module_name, uint32_t zero, const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    world().printed.push_back(std::to_string(level) + " " + module_name + " " + std::to_string(zero) + " " +
                              text);
}

platform_shadow_entry* mygetspnam(uint32_t handle, const char* name) {
    world().shadow_look_ups.emplace_back(handle, name);
    return world().shadow ? &*world().shadow : nullptr;
}

uint32_t TRAL_random() {
    ++world().randoms;
    return world().random;
}

int32_t sysmgrcmn_vdc_id_get() { return world().vdc; }

uint32_t get_card_module_info(card_module_info* info) {
    ++world().card_reads;
    if (!world().card_type) return 0x41;
    info->card_type = *world().card_type;
    return 0;
}

const uint16_t* quill_telnet_card_types(uint32_t* count) {
    *count = static_cast<uint32_t>(world().telnet_card_types.size());
    return world().telnet_card_types.data();
}

int32_t mts_send(uint32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void* payload,
                 uint32_t length, uint32_t a, uint32_t b, uint32_t c) {
    world().announced.push_back(
        {{handle, node, sap, opcode, a, b, c}, {static_cast<const char*>(payload), length}});
    return world().mts_result;
}

uint32_t mts_errno_get(uint32_t) { return world().mts_errno; }

uint32_t mts_opc_get(const void* message) { return static_cast<const FakeMessage*>(message)->opcode; }

void* mts_payload_get(const void* message) {
    const auto& payload = static_cast<const FakeMessage*>(message)->payload;
    return payload ? const_cast<char*>(payload->data()) : nullptr;
}

uint32_t mts_payload_size(const void* message) {
    const auto& payload = static_cast<const FakeMessage*>(message)->payload;
    return payload && world().mts_sizes ? static_cast<uint32_t>(payload->size()) : 0;
}

void* tlvu_malloc(uint32_t size) { return world().tlv_memory ? malloc(size) : nullptr; }

void tlvu_error_print(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    world().tlv_errors.emplace_back(text);
}
