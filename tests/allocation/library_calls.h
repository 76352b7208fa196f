// The calls of library_test.cc: the world before each, what they are given, and how their results are judged.
#pragma once

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
    security_user_roles held{};
    set_text(held.user_name, "amy");
    held.num_roles = 1;
    set_text(held.roles[0], "auditor");
    world() = World();
    world().reply.record = padded(bytes_of(held), 20000);
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

security_user user(const char* password) {
    security_user made{};
    set_text(made.user_name, "amy");
    set_text(made.password, password);
    return made;
}
security_user stored_user() {
    security_user stored = user(kSecret);
    security_user_config(kHandle, SET_REQ, &stored);
    return user("");
}

security_priv_info level(const char* secret, int32_t encryption) {
    security_priv_info made{};
    set_text(made.secret, secret);
    made.encryption_type = encryption;
    made.secret_len = static_cast<int32_t>(strlen(secret));
    return made;
}

// The reply to a request for a level with this hash.
uint32_t level_replied(const char* hash) {
    security_priv_info reply = level(hash, 0);
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

common_user_member member(const char* user_name, const char* name) {
    common_user_member made{};
    set_text(made.user_name, user_name);
    set_text(made.name, name);
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

}  // namespace
