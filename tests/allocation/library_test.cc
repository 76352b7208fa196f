// Every exported function while memory runs out, in the sandbox: account files, key files and tools are real,
// the platform is faked and its own memory never ends.
#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/text_field.h"
#include "quillplatform/accounts.h"
#include "tests/allocation/injection.h"
#include "tests/fakes/library_test.h"
#include "tests/fakes/log.h"
#include "tests/support/box.h"

namespace {

using quill::set_text;

constexpr char kPasswd[] =
    "root:x:0:0::/root:/bin/sh\namy:x:2000:100::/nowhere:/bin/false\n"
    "eve#02#:x:2001:100::/nowhere:/bin/false\n";
constexpr char kShadow[] =
    "root:*:19700:0:99999:7:::\namy:$1$salt$digest:19700:0:99999:7:::\neve#02#:*:19700:0:99999:7:::\n";
constexpr char kSecret[] = "Xq7!vR2#mzL";
constexpr char kHash[] = "$1$1f$134cc78c882a1c63";  // of abc
constexpr char kRsa[] = "/tmp/keys/rsa.pub", kSsh2[] = "/tmp/keys/rsa.ssh2", kPem[] = "/tmp/keys/pem";
constexpr char kSigning[] = "/tmp/keys/signing";
constexpr char kMakeFiles[] = R"(
mkdir -p /tmp/keys && cd /tmp/keys && exec 2>/dev/null
ssh-keygen -qt rsa -N '' -f rsa && ssh-keygen -ef rsa.pub >rsa.ssh2
ssh-keygen -lf rsa.pub >rsa.listed
openssl req -x509 -nodes -subj /CN=a -keyout key -out pem -newkey rsa:1024
printf 'x509v3-sign-rsa %s' text >signing
printf '#Welcome to \\n#' >/tmp/banner
mkdir -p /bootflash/vdc_2
cp signing /bootflash/a-name-that-is-longer-than-fifteen.pub
cp signing /bootflash/vdc_2/a-name-that-is-longer-than-fifteen.pub
)";
const security_notification kNotification{
    .type = 1, .user_name = "amy", .number = 2, .role_set = {1, {"auditor"}}, .text = "text"};
const FakeMessage kResponse{SECURITY_MTS_SELF_TEST, std::string(8, '\0') + be32(4)};

uint32_t number;
common_user_record read;
FILE* stream;

// The world before each call: amy has an account and a role.
void prepare_world() {
    world() = World();
    world().reply.record = padded(bytes_of(list("amy", {"auditor"})), 20000);
    world().roles = world().locales = {"auditor", "another"};
    world().shadow = {0, "!", 1000};
    log_lines().clear();
}

struct Calls {  // what a call did besides its result
    size_t requests = world().requests.size(), announced = world().announced.size();
    bool operator==(const Calls&) const = default;
};

// A call that succeeds, or fails as it does with memory, must have the same result as with memory. Any other
// failure must leave the result as it was given, if `untouched`.
template <bool untouched, class Given, class Call>
Outcome as_with_memory(Given given, Call call) {
    const auto ready = [&] {
        prepare_world();
        return given();
    };
    auto result = ready(), wanted = result;
    const std::string before = bytes_of(result);
    const auto status = static_cast<uint32_t>(attempt([&] { return call(&result); }));
    const Calls calls;

    struct Reference {
        uint32_t status;
        std::string result;
        Calls calls;
    };
    static const Reference reference = [&] {  // after the call, which may have to be the process's first
        wanted = ready();
        const auto with_memory = static_cast<uint32_t>(call(&wanted));
        return Reference{with_memory, bytes_of(wanted), {}};
    }();
    if (status == reference.status)
        return done_if(bytes_of(result) == reference.result && calls == reference.calls);
    return status != 0 && (!untouched || bytes_of(result) == before) ? kRefused : kWrong;
}

// ------------------------------------------------------------------------------------ what calls are given

struct Text {
    char text[1036];
};
Text text(const char* given = "") {
    Text made{};
    set_text(made.text, given);
    return made;
}

security_user stored_user() {
    security_user stored = user("amy", kSecret);
    security_user_config(kHandle, SET_REQ, &stored);
    return user("amy");
}

// The reply to a request for a level with this hash.
uint32_t level_replied(const char* hash) {
    security_priv_info reply = level(0, 0, hash);
    security_conf_cmi_byteorder_convert(SECURITY_PRIV_INFO_REQUEST, &reply);
    world().reply.record = bytes_of(reply);
    return 0;
}

common_user_record account(const char* name, const char* password = "", const char* key = "") {
    common_user_record made{};
    set_text(made.name, name);
    set_text(made.password, password);
    made.password_format = SECURITY_PASSWORD_CLEAR;
    made.expiry_year = 2036;
    made.expiry_month = made.expiry_day = 1;
    set_text(made.ssh_key, key);
    return made;
}

common_user_frame frame(int32_t kind) {
    common_user_frame made{};
    made.kind = kind;
    return made;
}

ssh_key_new_rec key_of(const char* path, uint8_t format) {
    ssh_key_new_rec made{};
    set_text(made.user_name, "amy");
    set_text(made.key_text, read_file(path).c_str());
    made.key_format = format;
    return made;
}

// A key file of context 2.
Text key_path() {
    setenv("SYSMGR_VDC_ID", "2", 1);
    return text("/a-name-that-is-longer-than-fifteen.pub");
}

Text opened(const char* path) {
    if (stream != nullptr) fclose(stream);
    stream = fopen(path, "r");
    world().vdc = 2;
    return {};
}

Text accounts() {
    write_file("/etc/passwd", kPasswd);
    write_file("/etc/shadow", kShadow);
    world().vdc = 2;
    endpwent();
    endspent();
    return {};
}

// ----------------------------------------------------------------------------------------- calls and results

// The name of an entry; a failure if there is none.
uint32_t named(const passwd* entry, Text* out) {
    return entry == nullptr || strcpy(out->text, entry->pw_name) == nullptr;
}
uint32_t named(const spwd* entry, Text* out) {
    return entry == nullptr || strcpy(out->text, entry->sp_namp) == nullptr;
}

// A walk must not end because memory ran out.
uint32_t not_ended(uint32_t status, Text* out) {
    if (status == SECURITY_ERR_END_OF_TABLE) set_text(out->text, "the end");
    return status;
}

// A call that makes a block and returns its length, which is at least `size`.
template <class Pointer = char*, class Make>
uint32_t block(Text* out, Make make, uint32_t size = 0) {
    Pointer made = nullptr;
    const auto status = static_cast<uint32_t>(make(&made, &size));
    if (made != nullptr) memcpy(out, made, std::min<size_t>(size, sizeof *out));
    free(made);
    return status;
}

template <class Structure, class ToTlv, class ToStruct>
uint32_t read_back(Text* out, const Structure& structure, ToTlv to_tlv, ToStruct to_struct) {
    void* tlv = nullptr;
    uint32_t length = 0;
    {
        const Watching ours(false);
        to_tlv(&structure, &tlv, &length);
    }
    const auto fill = [&](void** made, uint32_t*) {
        return to_struct(tlv, length, made, TLVU_MODE_ALLOCATE);
    };
    const uint32_t status = block<void*>(out, fill, sizeof structure);
    free(tlv);
    return status;
}

uint32_t converted(const char* path, uint8_t format, ssh_key_rec* out) {
    static ssh_key_new_rec source;
    {
        const Watching ours(false);
        source = key_of(path, format);
    }
    return convert_other_ssh_key_to_openssh(&source, out);
}

// Whether the accounts of context 2 are gone, or the log says why not; others are never.
uint32_t removed(uint32_t* kept) {
    const Watching ours(false);
    const bool gone = read_file("/etc/passwd").find("eve") == std::string::npos;
    const bool logged =
        std::ranges::any_of(log_lines(), [](const std::string& line) { return line.starts_with("3 "); });
    *kept = read_file("/etc/shadow").find("amy") != std::string::npos && (gone || logged);
    return gone ? 0 : 1;
}

// A function, its result as given, and a call that writes to `*out`. LOOSE: a failure may have changed it.
// FIRST: the process's first call.
#define CALL(untouched, given, ...)                                                               \
    [] {                                                                                          \
        return as_with_memory<untouched>([] { return given; },                                    \
                                         []([[maybe_unused]] auto* out) { return __VA_ARGS__; }); \
    }
#define ROW(function, given, ...) Case(#function, CALL(true, given, __VA_ARGS__))
#define LOOSE(function, given, ...) Case(#function, CALL(false, given, __VA_ARGS__))
#define FIRST(function, given, ...) Case(#function, CALL(true, given, __VA_ARGS__), true)
// By the function's arguments alone: STATUS for a call without a result, BLOCK for one whose last two
// arguments are for a block and its length, ASKED for one whose last is for a record.
#define STATUS(function, ...) ROW(function, 0, function(__VA_ARGS__))
#define BLOCK(type, function, ...) \
    ROW(function, text(), block<type>(out, [](auto... made) { return function(__VA_ARGS__, made...); }))
#define ASKED(type, function, ...) ROW(function, type{}, function(__VA_ARGS__, out))

const Case kCases[] = {
    // Secrets
    ROW(security_user_config, user("amy", kSecret), security_user_config(kHandle, SET_REQ, out)),
    LOOSE(security_user_config, stored_user(), security_user_config(kHandle, GET_REQ, out)),
    ROW(security_priv_info_config, level(0, SECURITY_ENCRYPTION_TO_HASH, kSecret),
        security_priv_info_config(kHandle, SET_REQ, out)),
    BLOCK(char*, no_encrypt_func, "text", nullptr, 0),
    BLOCK(char*, no_decrypt_func, "text", 4, nullptr, 0),
    BLOCK(char*, vigenere_encrypt_func, "a", "bb", 3),
    BLOCK(char*, vigenere_decrypt_func, "b", 2, "bb", 3),
    BLOCK(char*, security_md5_encrypt_func, kSecret, nullptr, 0),
    BLOCK(char*, security_verify_md5_hash_func, kHash, sizeof kHash - 1, "abc", 3),
    BLOCK(char*, security_conf_encrypt, kSecret, SECURITY_ENCRYPTION_HASH, nullptr, 0),
    BLOCK(char*, security_conf_decrypt, "text", 4, SECURITY_ENCRYPTION_CLEAR, nullptr, 0),
    ROW(security_calculate_hash,
        (security_calculate_hash("a", 1, "", 0, text().text, &number, "md5"), text()),
        security_calculate_hash("a", 1, "", 0, out->text, &number, "sha256")),
    ROW(security_verify_priv_level_secret, level_replied(kHash),
        security_verify_priv_level_secret(4, "abc", 3, 7, out)),
    ROW(security_verify_priv_level_secret, level_replied(kHash),
        security_verify_priv_level_secret(4, "abd", 3, 7, out)),
    ROW(security_user_password_check_psec_norm, 0,
        security_user_password_check_psec_norm(4, kSecret, "alice") != 0),
    ROW(security_user_password_check_psec_norm, 0,
        security_user_password_check_psec_norm(4, "Password1", "alice") != 0),
    FIRST(security_user_password_check_psec_norm, 0,
          security_user_password_check_psec_norm(4, "Password1", "alice") != 0),

    // Requests
    ASKED(uint32_t, cmi_enable_info_config, 4, GET_REQ, 1),
    ASKED(char, cmi_security_banner_config, 4, GET_REQ),
    ASKED(security_user, cmi_security_user_config, 4, GET_REQ),
    ASKED(security_priv_info, cmi_security_priv_info_config, 4, GET_REQ),
    LOOSE(cmi_security_priv_info_config_all, level(0),
          cmi_security_priv_info_config_all(4, GET_REQ, out)),
    ASKED(security_self_test_results, cmi_post_lc_result, 4),
    STATUS(cmi_security_priv_info_cleanup, 4, DEL_REQ),
    STATUS(cmi_security_vsh_callback_priv_info_cleanup, 4),
    ASKED(uint32_t, cmi_user_sshkey_config, 4, SET_REQ, 4, "amy", "", "/tmp/key"),

    // Accounts
    ROW(vdc_getpwent, accounts(), named(vdc_getpwent(), out)),
    ROW(vdc_getspent, accounts(), named(vdc_getspent(), out)),
    ROW(vdc_fgetpwent, opened("/etc/passwd"), named(vdc_fgetpwent(stream), out)),
    ROW(vdc_fgetspent, opened("/etc/shadow"), named(vdc_fgetspent(stream), out)),
    ROW(vdc_getpwnam, accounts(), named(vdc_getpwnam("eve"), out)),
    ROW(vdc_getspnam, accounts(), named(vdc_getspnam("eve"), out)),
    ROW(vdc_getpwuid, accounts(), named(vdc_getpwuid(2001), out)),
    // A name of the system's own is one, whatever becomes of the list; any other may be taken for one.
    FIRST(is_internal_user, (accounts(), uint32_t{1}),
          (*out = is_internal_user("root"), is_internal_user("amy"))),
    STATUS(cmi_security_num_users_get, 4, &number),  // those that could be read
    ROW(security_conf_user_getnext, text(), not_ended(security_conf_user_getnext(4, out->text), out)),
    ROW(security_conf_user_role_getnext, text(), security_conf_user_role_getnext(4, "amy", out->text)),
    ROW(security_del_vdc_users, (accounts(), uint32_t{1}), (security_del_vdc_users(), removed(out))),
    ROW(security_del_vdc_users_for_vdc, 0, (security_del_vdc_users_for_vdc(3), 0)),

    // Users
    // A key that cannot be asked for is none.
    ROW(cmi_common_user_config, 0, (read = account("amy"), cmi_common_user_config(4, GET_REQ, &read))),
    ROW(cmi_common_user_config, 0, (read = account(""), cmi_common_user_config(4, GETNEXT_REQ, &read))),
    LOOSE(cmi_common_user_config,
          (world().shadow.reset(),
           account("new", kSecret, "bootflash:a-name-that-is-longer-than-fifteen.pub")),
          cmi_common_user_config(4, SET_REQ, out)),
    STATUS(security_change_passwd, 4, "amy", kSecret, nullptr, nullptr),
    ROW(cmi_security_common_user_ssh_key_configured, 0,
        1 - cmi_security_common_user_ssh_key_configured(4, "amy")),
    ROW(cmi_common_user_role_config, member("amy", "auditor"), cmi_common_user_role_config(4, GET_REQ, out)),
    ROW(cmi_common_user_role_config, member("amy", "another"), cmi_common_user_role_config(4, SET_REQ, out)),
    LOOSE(cmi_common_user_role_config, member("", ""), cmi_common_user_role_config(4, GETNEXT_REQ, out)),
    ROW(cmi_common_user_locale_config, member("amy", "auditor"),
        cmi_common_user_locale_config(4, GET_REQ, out)),
    ROW(cmi_common_user_locale_config, member("amy", "another"),
        cmi_common_user_locale_config(4, SET_REQ, out)),
    ROW(cmi_security_common_user_config, frame(SECURITY_FRAME_LOCALE),
        cmi_security_common_user_config(4, GET_REQ, out, "amy", 1)),
    STATUS(cmi_security_common_user_create, 4, "amy", "2036-1-1", "", kSecret, 1, 2, "amy", 1),
    STATUS(cmi_security_common_create_expired_user, 4, "amy", "", "", kSecret, 1, 3, "amy", 1),
    STATUS(cmi_security_common_user_delete, 4, "amy", "amy", 1),
    STATUS(cmi_security_common_user_role_assign, 4, "amy", "another", "amy", 1),
    STATUS(cmi_security_common_user_locale_assign, 4, "amy", "another", "amy", 1),

    // Files
    ROW(sshkey_check_type, uint8_t{99}, sshkey_check_type(kRsa, out)),
    ROW(sshkey_check_type, uint8_t{99}, sshkey_check_type(kSsh2, out)),
    ROW(sshkey_check_type, uint8_t{99}, sshkey_check_type(kSigning, out)),
    ROW(sshkey_check_type, uint8_t{99}, sshkey_check_type(kPem, out)),
    STATUS(sshkey_is_empty_stdout, kRsa),
    ROW(sshkey_is_public_stdout, 0, sshkey_is_public_stdout("/tmp/keys/rsa.listed", kRsa) ^ 1),
    ROW(copy_sshkey_file_content, ssh_key_new_rec{},
        copy_sshkey_file_content(kSigning, "amy", nullptr, out, &out->key_format)),
    ROW(sshkey_new_copy_file_content, ssh_key_new_rec{},
        sshkey_new_copy_file_content(kSsh2, "amy", SSHKEY_FMT_SSH2, out)),
    LOOSE(copy_nginx_file_content, nginx_cert_rec{}, copy_nginx_file_content(kPem, out, 1)),
    ROW(convert_other_ssh_key_to_openssh, ssh_key_rec{}, converted(kSsh2, SSHKEY_FMT_SSH2, out)),
    ROW(convert_other_ssh_key_to_openssh, ssh_key_rec{}, converted(kPem, SSHKEY_FMT_X509_PEM, out)),
    LOOSE(security_sshkey_send, key_path(),
          security_sshkey_send(out->text, "amy", SECURITY_LOCATION_BOOTFLASH, SET_REQ, 4)),
    LOOSE(security_nginx_https_send, key_path(),
          security_nginx_https_send(out->text, SECURITY_LOCATION_BOOTFLASH, 1, 4)),
    ROW(security_read_banner_motd_msg, opened("/tmp/banner"),
        security_read_banner_motd_msg(out->text, stream) == -1),
    ROW(security_read_banner_motd_msg_with_delimiter, opened("/tmp/banner"),
        security_read_banner_motd_msg_with_delimiter(out->text, stream) == -1),

    // Notifications
    ROW(security_init_security_notif, text(), block<security_notification*>(out, [](auto made, uint32_t*) {
            return security_init_security_notif(made);
        })),
    STATUS(security_userchange_notify, 9, 1, "amy", 2, &kNotification.role_set, "text"),
    ROW(securityd_bootup_fips_post_test_parse_response, text(),
        block<void*>(out, [](void** array, uint32_t*) {
            uint8_t value;
            uint16_t size;
            return securityd_bootup_fips_post_test_parse_response(&kResponse, &value, &number, &size, array);
        }, 4)),
    ROW(security_roles_struct_to_tlv, text(), block<void*>(out, [](auto... made) {
            return security_roles_struct_to_tlv(&kNotification.role_set, nullptr, made..., &number);
        })),
    BLOCK(void*, tlvu_security_notification_to_tlv, &kNotification),
    BLOCK(void*, tlvu_role_set_to_tlv, &kNotification.role_set),
    ROW(tlvu_security_notification_to_struct, text(),
        read_back(out, kNotification, tlvu_security_notification_to_tlv,
                  tlvu_security_notification_to_struct)),
    ROW(tlvu_role_set_to_struct, text(),
        read_back(out, kNotification.role_set, tlvu_role_set_to_tlv, tlvu_role_set_to_struct)),
};

// These allocate nothing, once a first call has filled what is kept:
// bin_sort_fun change_to_lower cmi_security_common_user_locale_unassign
// cmi_security_common_user_role_unassign cmi_security_nginx_configure enable_info_config enable_info_to_str
// is_expired_user_allowed nginx_port_info_config reverse_fun security_banner_info_config
// security_calculate_md5_shadowed_hash security_check_strength_main security_conf_cmi_byteorder_convert
// security_conf_compare_username security_conf_default_check security_conf_get_stderr security_conf_get_user
// security_conf_get_vdc_user security_conf_system security_debug_conf_default_check security_gen_fix_len_salt
// security_gen_salt security_get_digest_name_from_encryption_type security_get_system_filename
// security_get_system_username security_get_vdc_from_username security_ltoa security_map_priv_lvl_to_roles
// security_mts_notify security_mts_usernotif_parser security_nginx_cert_enable security_nginx_ssh_key_config
// security_pss_create security_pss_move2key security_pss_move2location security_roles_get_tlv_data_sz
// security_roles_tlv_to_struct security_user_locales_config security_user_roles_config
// security_user_ssh_key_config security_user_ssh_key_new_config security_verify_hash
// security_verify_shadowed_hash securityd_bootup_fips_post_test_send_request set_pss_version
// tlvu_role_set_field_get_next tlvu_role_set_field_itr_init tlvu_role_set_get_field
// tlvu_role_set_get_struct_sz tlvu_role_set_get_tlv_sz tlvu_security_notification_field_get_next
// tlvu_security_notification_field_itr_init tlvu_security_notification_get_field
// tlvu_security_notification_get_struct_sz tlvu_security_notification_get_tlv_sz vsh_is_priv_enable
// vsh_is_privilege_enabled

class Allocation : public AllocationTest {
 protected:
    static void SetUpTestSuite() {
        if (getenv("QUILL_IN_SANDBOX") == nullptr) return;
        ASSERT_EQ(0, system(kMakeFiles));
        accounts();
        write_file("/tovo/etc/quillsecurity/internalusers", "root\n");
        write_file("/etc/nsswitch.conf", "passwd: files\nshadow: files\n");  // others overwrite errno
        getpwnam("amy");  // the C library does not survive running out of memory where it first looks
    }
};

TEST_P(Allocation, FailingAtAnyCallIsAStatus) {
    const uint32_t met = examine(GetParam());
#ifndef __SANITIZE_ADDRESS__  // whose strdup(3) and asprintf(3) do not call malloc()
    EXPECT_NE(0u, met) << "allocates nothing";
#endif
    failures += met;
}

INSTANTIATE_TEST_SUITE_P(Functions, Allocation, testing::ValuesIn(kCases), name_of);

}  // namespace
