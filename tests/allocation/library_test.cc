// Every exported function while memory runs out, in the sandbox: account files, key files and tools are real,
// the platform is faked and its own memory never ends.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pwd.h>
#include <shadow.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

#include "quillplatform/accounts.h"
#include "quillsecurity.h"
#include "tests/allocation/injection.h"
#include "tests/fakes/world.h"
#include "tests/support/box.h"

namespace {

bool logged = false;  // an error

}  // namespace

// Taken in place of the C library's.
extern "C" __attribute__((visibility("default"))) void syslog(int priority, const char*, ...) {
    logged = logged || LOG_PRI(priority) <= LOG_ERR;
}

namespace {

constexpr char kPasswd[] =
    "root:x:0:0::/root:/bin/sh\namy:x:2000:100::/nowhere:/bin/false\n"
    "eve#02#:x:2001:100::/nowhere:/bin/false\n";
constexpr char kShadow[] =
    "root:*:19700:0:99999:7:::\namy:$1$salt$digest:19700:0:99999:7:::\neve#02#:*:19700:0:99999:7:::\n";
constexpr char kSecret[] = "Xq7!vR2#mzL";
constexpr char kFile[] = "/tmp/given";
constexpr char kMakeKeys[] = R"(
mkdir -p /tmp/keys && cd /tmp/keys && exec 2>/dev/null
ssh-keygen -qt rsa -N '' -f rsa && ssh-keygen -ef rsa.pub >rsa.ssh2
ssh-keygen -lf rsa.pub >rsa.listed
openssl req -x509 -nodes -subj /CN=a -keyout crsa.key -out crsa -newkey rsa:1024
printf 'x509v3-sign-rsa %s' text >signing
mkdir -p /bootflash/vdc_2
cp signing /bootflash/a-name-that-is-longer-than-fifteen.pub
cp signing /bootflash/vdc_2/a-name-that-is-longer-than-fifteen.pub
)";

World& fresh() {
    const Unwatched ours;
    world() = World();
    logged = false;
    return world();
}

template <size_t size>
void set(char (&field)[size], const std::string& text) {
    text.copy(field, size - 1);
}

template <class Record>
bool same(const Record& a, const Record& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

template <class Record>
bool zero(const Record& record) {
    return same(record, Record{});
}

// Where calls put what is looked at afterwards, or by nobody.
char text[1024];
char area[1036];
uint32_t number;
int32_t salt_length;
platform_shadow_entry* shadow_entry;
ssh_key_cmd_rec cmd_record;
security_priv_info priv_record;
security_role_set role_set;

char* filled(const char* with) { return strcpy(text, with); }
bool reads(const char* wanted) { return strcmp(text, wanted) == 0; }

// -------------------------------------------------------------------------------------------- records

// A handler that is given the record to store, and then reads it back, walks to it and deletes it.
template <class Record, class Handler>
Outcome kept(const Record& given, Handler handler) {
    fresh();
    const auto ask = [&](uint32_t operation, Record& record) {
        return attempt([&] { return handler(kHandle, operation, &record); });
    };
    Record record = given;
    const uint32_t status = ask(SET_REQ, record);
    if (status != 0) return judge(status, true, same(record, given) && world().store.empty());
    record = given;
    const uint32_t read = ask(GET_REQ, record);
    Outcome worst = judge(read, same(record, given));
    record = {};
    const uint32_t walked = ask(GETNEXT_REQ, record);
    if (walked != SECURITY_PSS_NO_KEY) worst = std::max(worst, judge(walked, true));
    record = given;
    const uint32_t erased = ask(DEL_REQ, record);
    return std::max(worst, judge(erased, world().store.empty()));
}

// A request whose reply differs from it.
template <class Record, class Request>
Outcome asked(Request request) {
    fresh().reply.record = std::string(sizeof(Record) + sizeof(uint32_t), 1);
    Record record{};
    const uint32_t status = attempt([&] { return request(&record); });
    return judge(status, !zero(record), zero(record));
}

// A call whose status alone counts.
template <class Call>
Outcome status_of(Call call) {
    fresh();
    return judge(static_cast<uint32_t>(attempt(call)), true);
}

// One with a result, which is looked at afterwards.
bool whatever() { return true; }
template <class Call>
Outcome result_of(Call call, bool (*right)() = whatever) {
    const uint32_t status = attempt(call);
    return judge(status, right());
}

// One that cannot fail.
template <class Call>
Outcome always(Call call) {
    return done_if(attempt(call));
}

security_user user() {
    security_user record{};
    set(record.user_name, "amy");
    set(record.password, kSecret);
    return record;
}

security_priv_info level() {
    security_priv_info record{};
    record.priv_lvl = 7;
    set(record.secret, kSecret);
    return record;
}

template <class Record>
Record key() {
    Record record{};
    set(record.user_name, "amy");
    set(record.key_text, "ssh-rsa AAAA");
    return record;
}

uint32_t service(uint32_t handle, uint32_t operation, uint32_t* value) {
    if (operation == DEL_REQ) world().store.clear();  // it has no such operation
    return enable_info_config(handle, operation, SECURITY_SERVICE_SSH, value);
}

uint32_t port(uint32_t handle, uint32_t operation, uint32_t* value) {
    return nginx_port_info_config(handle, static_cast<int32_t>(operation), 22, value);
}

Outcome secret_to_hash() {
    fresh();
    security_priv_info record = level();
    record.encryption_type = SECURITY_ENCRYPTION_TO_HASH;
    const uint32_t status = attempt([&] { return security_priv_info_config(kHandle, SET_REQ, &record); });
    return judge(status, strncmp(record.secret, "$1$", 3) == 0, strcmp(record.secret, kSecret) == 0);
}

// The key after the one given, or the one itself, for a cursor that does not move.
template <class Move>
Outcome moved(Move move) {
    fresh().store = {{"a", ""}, {"b", ""}};
    const pss_descriptor key{filled("a"), 1};
    uint32_t status = 9;
    const pss_descriptor* found = attempt([&] { return move(&key, &status); });
    return done_if(status == 0 && found != nullptr);
}

// A list as its handler leaves it: only the count's order tells a list that was stored from one that was
// read.
template <class List, class Handler>
Outcome kept_list(int32_t List::*length, Handler handler) {
    fresh();
    List list{};
    set(list.user_name, "amy");
    list.*length = 1;
    const uint32_t stored = attempt([&] { return handler(kHandle, SET_REQ, &list); });
    List got{};
    set(got.user_name, "amy");
    const uint32_t read = attempt([&] { return handler(kHandle, GET_REQ, &got); });
    return std::max(judge(stored, world().store.size() == 1), judge(read, got.*length == 1));
}

// -------------------------------------------------------------------------------------------- secrets

// An encoder or decoder, called with where it puts the block and its length. A failure's block is null.
template <class Coder>
Outcome coded(const std::string& want, Coder coder) {
    char* block = nullptr;
    uint32_t length = 0;
    const uint32_t status = attempt([&] { return coder(&block, &length); });
    const bool right = block != nullptr && std::string(block, std::min<size_t>(length, want.size())) == want;
    const bool none = block == nullptr;
    free(block);
    return judge(status, right, none);
}

// A hash string.
const std::string& stored_hash() {
    static const std::string kStored = [] {
        uint32_t length = 0;
        security_calculate_md5_shadowed_hash(kSecret, sizeof kSecret - 1, area, &length);
        return std::string(area, length);
    }();
    return kStored;
}

uint32_t stored_length() { return static_cast<uint32_t>(stored_hash().size()); }

uint32_t another_digest_each_time() {
    const uint32_t status = security_calculate_hash(kSecret, 8, "salt", 4, area, &number, "sha256");
    return status != 0 ? status : security_calculate_hash(kSecret, 8, "salt", 4, area, &number, "md5");
}

// A reply with it, its words as they travel.
std::string stored_level() {
    const Unwatched ours;
    security_priv_info record{};
    stored_hash().copy(record.secret, sizeof record.secret);
    record.secret_len = static_cast<int32_t>(__builtin_bswap32(stored_length()));
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// The right secret may be refused; a wrong one is never taken.
template <class Verify>
Outcome verified(Verify verify) {
    const auto check = [&](const char* secret) {
        return attempt([&] { return verify(secret, static_cast<uint32_t>(strlen(secret))); });
    };
    if (check("something else") == 0) return kWrong;
    return judge(check(kSecret), true);
}

Outcome password_judged() {
    fresh();
    const auto check = [](const char* password) {
        return attempt([&] { return security_user_password_check_psec_norm(4, password, "alice"); });
    };
    if (check("Password1") == 0) return kWrong;
    return check(kSecret) == 0 ? kDone : kRefused;
}

// ------------------------------------------------------------------------------------------- accounts

void write_accounts() {
    write_file("/etc/passwd", kPasswd);
    write_file("/etc/shadow", kShadow);
}

World& in_context(int32_t vdc) {
    fresh().vdc = vdc;
    return world();
}

// An entry of context 2 by its plain name; none where memory ran out.
template <class Look, class Entry>
Outcome found(Look look, char* Entry::*name) {
    in_context(2);
    const Entry* entry = attempt(look);
    if (entry == nullptr) return kRefused;
    return done_if(strcmp(entry->*name, "eve") == 0);
}

template <class Entry>
Outcome walked(void (*open)(), Entry* (*next)(), void (*close)(), char* Entry::*name) {
    open();
    const Outcome outcome = found(next, name);
    close();
    return outcome;
}

template <class Entry>
Outcome walked(const char* path, Entry* (*next)(FILE*), char* Entry::*name) {
    FILE* stream = fopen(path, "r");
    const Outcome outcome = found([&] { return next(stream); }, name);
    fclose(stream);
    return outcome;
}

// A name of the system's own is one, whatever becomes of the list; any other may be taken for one.
Outcome internal_user() {
    write_file("/tovo/etc/quillsecurity/internalusers", "root\n");
    const auto is_internal = [](const char* name) { return attempt([=] { return is_internal_user(name); }); };
    if (is_internal("root") != 1) return kWrong;
    return is_internal("amy") == 0 ? kDone : kRefused;
}

Outcome users_removed() {
    in_context(2);
    write_accounts();
    write_file("/tovo/etc/quillsecurity/internalusers", "root\n");
    attempt(security_del_vdc_users);
    const bool gone = read_file("/etc/passwd").find("eve") == std::string::npos;
    const bool others = read_file("/etc/shadow").find("amy") != std::string::npos;
    write_accounts();
    if (!others) return kWrong;
    return gone ? kDone : logged ? kRefused : kWrong;
}

common_user_record account() {
    common_user_record record{};
    set(record.name, "amy");
    set(record.password, kSecret);
    record.password_format = SECURITY_PASSWORD_CLEAR;
    record.expiry_year = 2036;
    record.expiry_month = record.expiry_day = 1;
    set(record.ssh_key, "bootflash:a-name-that-is-longer-than-fifteen.pub");
    return record;
}

Outcome user_read(uint32_t operation) {
    fresh().shadow = {0, "!", 1000};
    common_user_record record{};
    set(record.name, operation == GET_REQ ? "amy" : "");
    const uint32_t status = attempt([&] { return cmi_common_user_config(4, operation, &record); });
    return judge(status, record.expiry_year == 1972);
}

// All that a new user takes is asked for, or the answer says that it is not.
Outcome user_made() {
    fresh();
    common_user_record record = account();
    set(record.name, "new");
    const uint32_t status = attempt([&] { return cmi_common_user_config(4, SET_REQ, &record); });
    std::multiset<int32_t> types;
    for (const Sent& sent : world().requests) types.insert(sent.type);
    return judge(status, types.count(157) == 1 && types.count(155) == 1 && types.count(170) == 1);
}

Outcome user_deleted() {
    fresh().shadow = {0, "!", -1};
    return result_of([] { return cmi_security_common_user_delete(4, "amy", "amy", 1); });
}

Outcome users_counted() {
    fresh();
    common_user_frame frame{};
    frame.kind = SECURITY_FRAME_USER_COUNT;
    const uint32_t status =
        attempt([&] { return cmi_security_common_user_config(4, GET_REQ, &frame, "amy", 1); });
    return judge(status, frame.body.count <= 2);  // those that could be read
}

Outcome key_asked_for() {
    fresh();
    const uint32_t has = attempt([] { return cmi_security_common_user_ssh_key_configured(4, "amy"); });
    return has == 1 ? kDone : kRefused;
}

World& with_roles() {
    security_user_roles held{};
    set(held.user_name, "amy");
    held.num_roles = 1;
    set(held.roles[0], "auditor");
    fresh().reply.record = std::string(reinterpret_cast<const char*>(&held), sizeof held);
    world().roles = world().locales = {"auditor", "another"};
    return world();
}

Outcome member(uint32_t (*config)(uint32_t, uint32_t, common_user_member*), uint32_t operation,
               const char* user_name, const char* name) {
    with_roles();
    common_user_member record{};
    set(record.user_name, user_name);
    set(record.name, name);
    const uint32_t status = attempt([&] { return config(4, operation, &record); });
    return judge(status, operation != GETNEXT_REQ || strcmp(record.name, "auditor") == 0);
}

template <class Config>
Outcome members(Config config) {
    return std::max({member(config, GET_REQ, "amy", "auditor"), member(config, SET_REQ, "amy", "another"),
                     member(config, DEL_REQ, "amy", "auditor")});
}

// ------------------------------------------------------------------------------------------ key files

Outcome type_of(const char* path, uint8_t want) {
    fresh();
    uint8_t format = 99;
    const uint32_t status = attempt([&] { return sshkey_check_type(path, &format); });
    return judge(status, format == want);
}

Outcome key_taken(const char* path) {
    fresh();
    ssh_key_rec record{};
    ssh_key_new_rec new_record{};
    uint8_t format = 99;
    const uint32_t status =
        attempt([&] { return copy_sshkey_file_content(path, "amy", &record, &new_record, &format); });
    return judge(status, read_file(path) == std::string(record.key_text) + new_record.key_text,
                 zero(record) && zero(new_record));
}

Outcome converted(const char* path, uint8_t format, const char* start) {
    fresh();
    ssh_key_new_rec source{};
    set(source.user_name, "amy");
    set(source.key_text, read_file(path));
    source.key_format = format;
    ssh_key_rec target{};
    const uint32_t status = attempt([&] { return convert_other_ssh_key_to_openssh(&source, &target); });
    return judge(status, strncmp(target.key_text, start, strlen(start)) == 0, zero(target));
}

// A question about a file, whose failures are statuses.
Outcome answers(uint32_t want, uint32_t (*ask)()) {
    const uint32_t answer = attempt(ask);
    return answer == SECURITY_ERR_FILE_OPEN ? kRefused : done_if(answer == want);
}

Outcome text_taken(const char* path) {
    ssh_key_new_rec record{};
    const uint32_t status =
        attempt([&] { return sshkey_new_copy_file_content(path, "amy", SSHKEY_FMT_SSH2, &record); });
    return judge(status, read_file(path) == record.key_text, zero(record));
}

// A file below a context's directory, where its path is put together.
template <class Send>
Outcome sent_file(Send send) {
    fresh();
    char path[256] = "/a-name-that-is-longer-than-fifteen.pub";
    setenv("SYSMGR_VDC_ID", "2", 1);
    const uint32_t status = attempt([&] { return send(path); });
    unsetenv("SYSMGR_VDC_ID");
    const bool named = strcmp(path, "/vdc_2/a-name-that-is-longer-than-fifteen.pub") == 0;
    return judge(status, named && world().requests.size() == 1, world().requests.empty());
}

Outcome certificate_read() {
    fresh();
    nginx_cert_rec record{};
    const uint32_t status = attempt([&] { return copy_nginx_file_content("/tmp/keys/crsa", &record, 1); });
    return judge(status, record.item == 1 && read_file("/tmp/keys/crsa") == record.text);
}

// -------------------------------------------------------------------------------------- notifications

const security_notification& notification() {
    static const security_notification kNotification{
        .type = 1, .user_name = "amy", .number = 2, .role_set = {1, {"auditor"}}, .text = "text"};
    return kNotification;
}

std::string message_of(uint32_t (*to_tlv)(const void*, void**, uint32_t*), const void* structure) {
    void* tlv = nullptr;
    uint32_t length = 0;
    if (to_tlv(structure, &tlv, &length) != 0) return "";
    std::string message(static_cast<const char*>(tlv), length);
    free(tlv);
    return message;
}

// The seven utilities of one table.
struct Utilities {
    const void* structure;
    size_t size;
    uint32_t (*to_tlv)(const void*, void**, uint32_t*);
    uint32_t (*to_struct)(const void*, uint32_t, void**, uint32_t);
    int32_t (*struct_size)(const void*, uint32_t);
    uint32_t (*tlv_size)(const void*);
    uint32_t (*get_field)(const void*, uint32_t, uint32_t, void**, uint32_t*);
    uint32_t (*itr_init)(const void*, uint32_t, tlvu_field_itr*);
    uint32_t (*get_next)(tlvu_field_itr*, uint32_t*, void**, uint32_t*);
};

const Utilities& of_notifications() {
    static const Utilities kUtilities{&notification(),
                                      sizeof(security_notification),
                                      tlvu_security_notification_to_tlv,
                                      tlvu_security_notification_to_struct,
                                      tlvu_security_notification_get_struct_sz,
                                      tlvu_security_notification_get_tlv_sz,
                                      tlvu_security_notification_get_field,
                                      tlvu_security_notification_field_itr_init,
                                      tlvu_security_notification_field_get_next};
    return kUtilities;
}

const Utilities& of_role_sets() {
    static const Utilities kUtilities{
        &notification().role_set, sizeof(security_role_set),    tlvu_role_set_to_tlv,
        tlvu_role_set_to_struct,  tlvu_role_set_get_struct_sz,  tlvu_role_set_get_tlv_sz,
        tlvu_role_set_get_field,  tlvu_role_set_field_itr_init, tlvu_role_set_field_get_next};
    return kUtilities;
}

Outcome written(const Utilities& utilities) {
    fresh();
    void* tlv = nullptr;
    uint32_t length = 0;
    const uint32_t status = attempt([&] { return utilities.to_tlv(utilities.structure, &tlv, &length); });
    const Outcome outcome = judge(status, length != 0, tlv == nullptr && length == 0);
    free(tlv);
    return outcome;
}

Outcome read_back(const Utilities& utilities) {
    fresh();
    const std::string message = message_of(utilities.to_tlv, utilities.structure);
    const auto read = [&](void** structure, uint32_t mode) {
        return attempt([&] {
            return utilities.to_struct(message.data(), static_cast<uint32_t>(message.size()), structure,
                                       mode);
        });
    };
    const auto right = [&](const void* structure) {
        return memcmp(structure, utilities.structure, utilities.size) == 0;
    };
    void* made = nullptr;
    uint32_t status = read(&made, TLVU_MODE_ALLOCATE);
    const Outcome first = judge(status, made != nullptr && right(made), made == nullptr);
    free(made);
    std::string filled(utilities.size, 'x');
    void* place = filled.data();
    status = read(&place, TLVU_MODE_FILL);
    return std::max(first, judge(status, right(place), filled == std::string(utilities.size, 'x')));
}

// What needs no memory: sizes, a field, a walk.
Outcome looked_at(const Utilities& utilities) {
    const std::string message = message_of(utilities.to_tlv, utilities.structure);
    const auto size = static_cast<uint32_t>(message.size());
    return always([&] {
        void* value = nullptr;
        uint32_t id = 0, length = 0;
        tlvu_field_itr itr;
        return utilities.struct_size(message.data(), size) == static_cast<int32_t>(utilities.size) &&
               utilities.tlv_size(utilities.structure) == size &&
               utilities.get_field(message.data(), size, 1, &value, &length) == 0 && length == 4 &&
               utilities.itr_init(message.data(), size, &itr) == 0 &&
               utilities.get_next(&itr, &id, &value, &length) == 0 && id == 1;
    });
}

uint32_t roles_to_tlv(char** block, uint32_t* length) {
    void* data = nullptr;
    const uint32_t status =
        security_roles_struct_to_tlv(&notification().role_set, nullptr, &data, length, &number);
    *block = static_cast<char*>(data);
    return status;
}

Outcome notification_made() {
    security_notification* made = nullptr;
    const uint32_t status = attempt([&] { return security_init_security_notif(&made); });
    const Outcome outcome = judge(status, made != nullptr, made == nullptr);
    free(made);
    return outcome;
}

Outcome announced() {
    fresh();
    const uint32_t status =
        attempt([] { return security_userchange_notify(9, 1, "amy", 2, &notification().role_set, "text"); });
    return judge(status, world().announced.size() == 1, world().announced.empty());
}

Outcome notification_parsed() {
    fresh();
    const FakeMessage message{SECURITY_MTS_USER_CHANGE,
                              message_of(tlvu_security_notification_to_tlv, &notification())};
    security_notification parsed{};
    const int32_t status = attempt([&] { return security_mts_usernotif_parser(&message, &parsed); });
    return judge(static_cast<uint32_t>(status), same(parsed, notification()), zero(parsed));
}

Outcome response_parsed() {
    fresh();
    const FakeMessage message{SECURITY_MTS_SELF_TEST, std::string("\1xyz\0\0\0\0", 8) + be32(4)};
    uint8_t value = 9;
    uint32_t word = 9;
    uint16_t size = 9;
    void* array = nullptr;
    const uint32_t status = attempt([&] {
        return securityd_bootup_fips_post_test_parse_response(&message, &value, &word, &size, &array);
    });
    const Outcome outcome = judge(status, value == 1 && word == 0 && size == 4 && array != nullptr,
                                  value == 9 && word == 9 && size == 9 && array == nullptr);
    free(array);
    return outcome;
}

// A banner's file, which the C library reads through a buffer of its own.
template <class Read>
Outcome banner_read(Read read) {
    write_file(kFile, "#Welcome to \\n#");
    FILE* stream = fopen(kFile, "r");
    char banner[SECURITY_BANNER_TEXT_SIZE] = "before";
    const int32_t length = attempt([&] { return read(banner, stream); });
    fclose(stream);
    if (length == -1) return strcmp(banner, "before") == 0 ? kRefused : kWrong;
    return done_if(strstr(banner, "Welcome to $(hostname)") != nullptr);
}

// -------------------------------------------------------------------------------------------- the table

// A call that can fail, and one that cannot.
#define CASE(function, ...) Case(#function, [] { return __VA_ARGS__; })
#define PLAIN(function, ...) CASE(function, always([] { return __VA_ARGS__; }))
// By their arguments: calls whose status is all that counts, without and with a user's roles to find; coders
// of secrets, which have a block and its length for their last; requests with a record for their last.
#define STATUS(function, ...) CASE(function, status_of([] { return function(__VA_ARGS__); }))
#define WITH_ROLES(function, ...) \
    CASE(function, (with_roles(), result_of([] { return function(__VA_ARGS__); })))
#define CODED(function, want, ...) \
    CASE(function, coded(want, [](auto... out) { return function(__VA_ARGS__, out...); }))
#define ASKED(function, Record, ...) \
    CASE(function, asked<Record>([](Record* record) { return function(__VA_ARGS__, record); }))
#define TLVU(NAME, utilities)                                                                            \
    CASE(tlvu_##NAME##_to_tlv, written(utilities)), CASE(tlvu_##NAME##_to_struct, read_back(utilities)), \
        CASE(tlvu_##NAME##_get_struct_sz, looked_at(utilities)),                                         \
        CASE(tlvu_##NAME##_get_tlv_sz, looked_at(utilities)),                                            \
        CASE(tlvu_##NAME##_get_field, looked_at(utilities)),                                             \
        CASE(tlvu_##NAME##_field_itr_init, looked_at(utilities)),                                        \
        CASE(tlvu_##NAME##_field_get_next, looked_at(utilities))

const Case kCases[] = {
    // Texts and numbers
    PLAIN(bin_sort_fun, strcmp(bin_sort_fun(filled("ba")), "ab") == 0),
    PLAIN(change_to_lower, strcmp(change_to_lower(filled("BA")), "Ba") == 0),
    PLAIN(reverse_fun, strcmp(reverse_fun(filled("ab")), "ba") == 0),
    PLAIN(security_ltoa, (security_ltoa(text, 'x', 255), reads("ff"))),
    PLAIN(security_conf_compare_username, security_conf_compare_username("b", "aa") < 0),
    PLAIN(security_conf_get_stderr, strcmp(security_conf_get_stderr(filled("a: b"), ": "), "b") == 0),
    PLAIN(security_conf_cmi_byteorder_convert,
          (security_conf_cmi_byteorder_convert(SECURITY_SSHKEY_REQUEST, &cmd_record), true)),
    PLAIN(security_get_digest_name_from_encryption_type,
          security_get_digest_name_from_encryption_type(text, 3) == text && reads("sha1")),
    PLAIN(security_map_priv_lvl_to_roles, security_map_priv_lvl_to_roles(3, text) == text && reads("priv-3")),
    PLAIN(vsh_is_priv_enable, vsh_is_priv_enable() == 1),
    PLAIN(vsh_is_privilege_enabled, vsh_is_privilege_enabled() == 1),
    PLAIN(is_expired_user_allowed, is_expired_user_allowed() == 0),
    PLAIN(enable_info_to_str, strcmp(enable_info_to_str(1), "ssh") == 0),

    // The store
    STATUS(security_pss_create, &number, "store", 1, 2),
    STATUS(set_pss_version, kHandle),
    CASE(security_pss_move2key, moved([](const pss_descriptor* key, uint32_t* status) {
             return security_pss_move2key(kHandle, key, status);
         })),
    CASE(security_pss_move2location, moved([](const pss_descriptor* key, uint32_t* status) {
             security_pss_move2key(kHandle, key, status);
             return security_pss_move2location(kHandle, PSS_NEXT, status);
         })),
    CASE(enable_info_config, kept(uint32_t{9}, service)),
    CASE(nginx_port_info_config, kept(uint32_t{9}, port)),
    CASE(security_banner_info_config, kept('!', security_banner_info_config)),
    CASE(security_user_config, kept(user(), security_user_config)),
    CASE(security_priv_info_config, kept(level(), security_priv_info_config)),
    CASE(security_priv_info_config, secret_to_hash()),
    CASE(security_user_ssh_key_config, kept(key<ssh_key_rec>(), security_user_ssh_key_config)),
    CASE(security_user_ssh_key_new_config, kept(key<ssh_key_new_rec>(), security_user_ssh_key_new_config)),
    CASE(security_nginx_ssh_key_config, kept(nginx_cert_rec{1, "text", 0}, security_nginx_ssh_key_config)),
    CASE(security_user_roles_config, kept_list(&security_user_roles::num_roles, security_user_roles_config)),
    CASE(security_user_locales_config,
         kept_list(&security_user_locales::num_locales, security_user_locales_config)),
    STATUS(security_conf_default_check, kHandle),
    STATUS(security_debug_conf_default_check, ),

    // Secrets
    CODED(no_encrypt_func, "text", "text", nullptr, 0),
    CODED(no_decrypt_func, "text", "text", 4, nullptr, 0),
    CODED(vigenere_encrypt_func, "b", "a", "bb", 3),
    CODED(vigenere_decrypt_func, "a", "b", 2, "bb", 3),
    CODED(security_md5_encrypt_func, "$1$", kSecret, nullptr, 0),
    CODED(security_verify_md5_hash_func, kSecret, stored_hash().c_str(), stored_length(), kSecret,
          sizeof kSecret - 1),
    CODED(security_conf_encrypt, "$1$", kSecret, SECURITY_ENCRYPTION_HASH, nullptr, 0),
    CODED(security_conf_decrypt, "text", "text", 4, SECURITY_ENCRYPTION_CLEAR, nullptr, 0),
    STATUS(security_gen_salt, text, &(salt_length = 0)),
    STATUS(security_gen_fix_len_salt, text, &(salt_length = 8)),
    STATUS(security_calculate_hash, kSecret, 8, "salt", 4, text, &number, "sha1"),
    CASE(security_calculate_hash, status_of(another_digest_each_time)),
    STATUS(security_calculate_md5_shadowed_hash, kSecret, 8, area, &number),
    CASE(security_verify_hash, verified([](const char* secret, uint32_t length) {
             const char* digest = strrchr(stored_hash().c_str(), '$') + 1;
             const char* salt = stored_hash().c_str() + 3;
             return security_verify_hash(secret, length, salt, static_cast<uint32_t>(digest - 1 - salt),
                                         digest, 16, "md5");
         })),
    CASE(security_verify_shadowed_hash, verified([](const char* secret, uint32_t length) {
             return security_verify_shadowed_hash(secret, length, stored_hash().c_str(), stored_length());
         })),
    CASE(security_verify_priv_level_secret, verified([](const char* secret, uint32_t length) {
             fresh().reply.record = stored_level();
             return security_verify_priv_level_secret(4, secret, length, 7, &number);
         })),
    PLAIN(security_check_strength_main, security_check_strength_main("alice", kSecret) == nullptr),
    CASE(security_user_password_check_psec_norm, password_judged()),
    {"security_user_password_check_psec_norm", password_judged, true},

    // Requests
    ASKED(cmi_enable_info_config, uint32_t, 4, GET_REQ, 1),
    ASKED(cmi_security_banner_config, char, 4, GET_REQ),
    ASKED(cmi_security_user_config, security_user, 4, GET_REQ),
    ASKED(cmi_security_priv_info_config, security_priv_info, 4, GET_REQ),
    STATUS(cmi_security_priv_info_config_all, 4, GET_REQ, &priv_record),
    ASKED(cmi_post_lc_result, security_self_test_results, 4),
    STATUS(cmi_security_priv_info_cleanup, 4, DEL_REQ),
    STATUS(cmi_security_vsh_callback_priv_info_cleanup, 4),
    STATUS(cmi_security_nginx_configure, 4, 1, 80, 443),
    STATUS(security_nginx_cert_enable, 4),
    STATUS(cmi_user_sshkey_config, 4, SET_REQ, 4, "amy", "", "/tmp/key", &number),

    // Accounts
    CASE(vdc_getpwent, walked(setpwent, vdc_getpwent, endpwent, &passwd::pw_name)),
    CASE(vdc_getspent, walked(setspent, vdc_getspent, endspent, &spwd::sp_namp)),
    CASE(vdc_fgetpwent, walked("/etc/passwd", vdc_fgetpwent, &passwd::pw_name)),
    CASE(vdc_fgetspent, walked("/etc/shadow", vdc_fgetspent, &spwd::sp_namp)),
    CASE(vdc_getpwnam, found([] { return vdc_getpwnam("eve"); }, &passwd::pw_name)),
    CASE(vdc_getspnam, found([] { return vdc_getspnam("eve"); }, &spwd::sp_namp)),
    CASE(vdc_getpwuid, found([] { return vdc_getpwuid(2001); }, &passwd::pw_name)),
    PLAIN(security_get_vdc_from_username, security_get_vdc_from_username("eve#02#") == 2),
    PLAIN(security_get_system_username, security_get_system_username("amy") != nullptr),
    PLAIN(security_get_system_filename, security_get_system_filename("amy") != nullptr),
    STATUS(security_conf_get_user, kHandle, "amy", &shadow_entry),
    STATUS(security_conf_get_vdc_user, kHandle, "amy", &shadow_entry),
    {"is_internal_user", internal_user, true},
    CASE(cmi_security_num_users_get,
         result_of([] { return cmi_security_num_users_get(4, &number); }, [] { return number <= 2; })),
    CASE(security_conf_user_getnext,
         result_of([] { return security_conf_user_getnext(4, filled("")); }, [] { return reads("amy"); })),
    CASE(security_conf_user_role_getnext,
         (with_roles(), result_of([] { return security_conf_user_role_getnext(4, "amy", filled("")); },
                                  [] { return reads("auditor"); }))),
    STATUS(security_conf_system, "exit 0", "/dev/null", nullptr),
    CASE(security_del_vdc_users, users_removed()),
    PLAIN(security_del_vdc_users_for_vdc, (security_del_vdc_users_for_vdc(3), true)),  // which has none

    // Users
    CASE(cmi_common_user_config, std::max(user_read(GET_REQ), user_read(GETNEXT_REQ))),
    CASE(cmi_common_user_config, user_made()),
    STATUS(security_change_passwd, 4, "amy", kSecret, nullptr, nullptr),
    CASE(cmi_security_common_user_ssh_key_configured, key_asked_for()),
    CASE(cmi_common_user_role_config, std::max(members(cmi_common_user_role_config),
                                               member(cmi_common_user_role_config, GETNEXT_REQ, "", ""))),
    CASE(cmi_common_user_locale_config, members(cmi_common_user_locale_config)),
    CASE(cmi_security_common_user_config, users_counted()),
    STATUS(cmi_security_common_user_create, 4, "new", "2036-1-1", "auditor", kSecret, 1, 2, "amy", 1),
    STATUS(cmi_security_common_create_expired_user, 4, "new", "2001-1-1", "auditor", kSecret, 1, 3, "amy", 1),
    CASE(cmi_security_common_user_delete, user_deleted()),
    WITH_ROLES(cmi_security_common_user_role_assign, 4, "amy", "another", "amy", 1),
    WITH_ROLES(cmi_security_common_user_role_unassign, 4, "amy", "auditor", "amy", 1),
    WITH_ROLES(cmi_security_common_user_locale_assign, 4, "amy", "another", "amy", 1),
    WITH_ROLES(cmi_security_common_user_locale_unassign, 4, "amy", "auditor", "amy", 1),

    // Key files
    CASE(sshkey_check_type, type_of("/tmp/keys/rsa.pub", SSHKEY_FMT_OPENSSH)),
    CASE(sshkey_check_type, type_of("/tmp/keys/rsa.ssh2", SSHKEY_FMT_SSH2)),
    CASE(sshkey_check_type, type_of("/tmp/keys/crsa", SSHKEY_FMT_X509_PEM)),
    CASE(sshkey_check_type, type_of("/tmp/keys/signing", SSHKEY_FMT_X509V3_SIGN_RSA)),
    CASE(sshkey_is_empty_stdout, answers(0, [] { return sshkey_is_empty_stdout("/tmp/keys/rsa"); })),
    CASE(sshkey_is_public_stdout,
         answers(1, [] { return sshkey_is_public_stdout("/tmp/keys/rsa.listed", "/tmp/keys/rsa.pub"); })),
    CASE(copy_sshkey_file_content, key_taken("/tmp/keys/signing")),
    CASE(sshkey_new_copy_file_content, text_taken("/tmp/keys/rsa.ssh2")),
    CASE(convert_other_ssh_key_to_openssh, converted("/tmp/keys/rsa.ssh2", SSHKEY_FMT_SSH2, "ssh-rsa AAAA")),
    CASE(convert_other_ssh_key_to_openssh, converted("/tmp/keys/crsa", SSHKEY_FMT_X509_PEM, "ssh-rsa AAAA")),
    CASE(security_sshkey_send, sent_file([](char* path) {
             return security_sshkey_send(path, "amy", SECURITY_LOCATION_BOOTFLASH, SET_REQ, 4);
         })),
    CASE(copy_nginx_file_content, certificate_read()),
    CASE(security_nginx_https_send, sent_file([](char* path) {
             return security_nginx_https_send(path, SECURITY_LOCATION_BOOTFLASH, 1, 4);
         })),
    CASE(security_read_banner_motd_msg, banner_read(security_read_banner_motd_msg)),
    CASE(security_read_banner_motd_msg_with_delimiter,
         banner_read(security_read_banner_motd_msg_with_delimiter)),

    // Notifications
    CASE(security_init_security_notif, notification_made()),
    STATUS(security_mts_notify, 9, SECURITY_MTS_USER_CHANGE, "text", 4),
    CASE(security_userchange_notify, announced()),
    CASE(security_mts_usernotif_parser, notification_parsed()),
    STATUS(securityd_bootup_fips_post_test_send_request, 9, 1, 1, &number),
    CASE(securityd_bootup_fips_post_test_parse_response, response_parsed()),
    PLAIN(security_roles_get_tlv_data_sz, security_roles_get_tlv_data_sz() == 4160),
    CASE(security_roles_struct_to_tlv, coded("auditor", roles_to_tlv)),
    PLAIN(security_roles_tlv_to_struct, security_roles_tlv_to_struct(&role_set, role_set.roles) == 0),
    TLVU(security_notification, of_notifications()),
    TLVU(role_set, of_role_sets()),
};

#undef CASE
#undef PLAIN
#undef STATUS
#undef WITH_ROLES
#undef CODED
#undef ASKED
#undef TLVU

class Allocation : public testing::TestWithParam<Case> {
 protected:
    static void SetUpTestSuite() {
        if (getenv("QUILL_IN_SANDBOX") == nullptr) return;
        ASSERT_EQ(0, system(kMakeKeys));
        write_accounts();
        write_file("/etc/nsswitch.conf", "passwd: files\nshadow: files\n");  // others overwrite errno
        stored_hash();
        getpwnam("amy");  // the C library does not survive running out of memory where it first looks
    }
    static void TearDownTestSuite() {
        printf("%u failures in %zu cases of exported functions\n", failures, std::size(kCases));
    }
    void SetUp() override {
        if (getenv("QUILL_IN_SANDBOX") == nullptr) GTEST_SKIP() << "run in packaging/sandbox";
    }

    static inline uint32_t failures = 0;
};

TEST_P(Allocation, FailingAtAnyCallIsAStatus) { failures += examine(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Functions, Allocation, testing::ValuesIn(kCases), [](const auto& test) {
    return test.param.function + ("_" + std::to_string(test.index));
});

// Data needs none: the symbol says which it is.
TEST(AllocationCases, EveryExportedFunctionHasOne) {
    std::set<std::string> examined;
    for (const Case& c : kCases) examined.insert(c.function);
    std::ifstream list(QUILL_EXPORTS);
    size_t functions = 0;
    for (std::string name; std::getline(list, name);) {
        void* address = dlsym(RTLD_DEFAULT, name.c_str());
        Dl_info info;
        ElfW(Sym)* symbol = nullptr;
        ASSERT_NE(0, dladdr1(address, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT)) << name;
        ASSERT_NE(nullptr, symbol) << name;
        if (ELF64_ST_TYPE(symbol->st_info) != STT_FUNC) continue;
        ++functions;
        EXPECT_TRUE(examined.contains(name)) << name;
    }
    EXPECT_EQ(functions, examined.size());
}

}  // namespace
