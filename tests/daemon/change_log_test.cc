// What the daemon's own routes check of a request, and what the log says of what was asked, over a real
// store.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "base/name_list.h"
#include "daemon/dispatch.h"
#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/fakes/log.h"
#include "tests/support/box.h"

namespace {

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// Records in wire order, from what matters of them.
std::string word(uint32_t number) {
    const uint32_t bytes = __builtin_bswap32(number);
    return bytes_of(bytes);
}
std::string service(uint32_t code, uint32_t value) { return word(code) + word(value); }
std::string in_field(const std::string& text, size_t size) {
    return text + std::string(size - text.size(), '\0');
}
std::string secret(uint32_t level, uint32_t type, const std::string& text, uint32_t length) {
    return word(level) + word(type) + in_field(text, 1024) + word(length) + word(0) + std::string(64, '\0') +
           word(0);
}
std::string user(const std::string& name, const std::string& password) {
    return in_field(name, 128) + word(0) + word(0) + in_field(password, 128);
}
std::string account(const std::string& name, const std::string& password, const char* role,
                    const char* expiry) {
    security_user_manage record{};
    name.copy(record.user_name, 127);
    password.copy(record.password, 127);
    record.num_roles = *role != '\0' ? 1 : 0;
    strcpy(record.roles[0], role);
    strcpy(record.expiry, expiry);
    return bytes_of(record);
}
std::string password(const std::string& name, const std::string& text) {
    return in_field(in_field(name, 128) + text, sizeof(security_passwd));
}
std::string list(const std::string& name, const std::vector<std::string>& names) {
    quill::NameList record{};
    name.copy(record.user_name, 127);
    record.count = static_cast<int32_t>(names.size());
    for (size_t i = 0; i < names.size(); ++i) names[i].copy(record.names[i], 64);
    return bytes_of(record);
}
std::string key_pair(uint32_t kind, const std::string& name) {
    return in_field(word(kind) + word(0) + name, sizeof(ssh_key_cmd_rec));
}
std::string web(uint32_t http, uint32_t https, uint32_t on) { return word(http) + word(https) + word(on); }
std::string web_text(uint32_t item, const std::string& text, uint32_t enable = 0) {
    return bytes_of(item) + in_field(text, 2100) + bytes_of(enable);
}

class Routes : public testing::Test {
 protected:
    Routes() {
        log_lines().clear();
        EXPECT_EQ(0u, security_pss_create(&store, "security", 0, 0));
    }
    ~Routes() override { pss2_close(store); }

    uint32_t ask(uint32_t type, uint32_t operation, const std::string& record, bool administrator = true,
                 uid_t uid = 0, const char* name = "ann") {
        alignas(16) unsigned char bytes[SECURITY_CMI_MAX_RECORD];
        record.copy(reinterpret_cast<char*>(bytes), sizeof bytes);
        quill::Request request{type, operation, 7, name, bytes, static_cast<uint32_t>(record.size())};
        quill::ConnectionState state;
        return quill::dispatch(quill::routes(), store, {true, administrator, uid, 321}, state, request)
            .status;
    }

    Box box;
    uint32_t store = 0;
};

// Clients that set only the key leave anything in the other fields.
TEST_F(Routes, ReadingAndDeletingCheckKeysAlone) {
    const std::string stored_secret = secret(3, 0, "text", 4), stored_user = user("zoe", "secret");
    const struct {
        const char* what;
        uint32_t type;
        size_t size;
        std::string stored;  // before; none where that takes an account
        size_t key_at;
        std::string key;
        uint32_t got, deleted;
    } cases[] = {
        {"service", 161, 8, service(2, 1), 0, word(2), 0, 0},
        {"user record", 165, 264, stored_user, 0, in_field("zoe", 128) + word(0), 0, 0},
        {"secret", 5159, 1108, stored_secret, 0, word(3), 0, 0},
        {"account", 157, 16960, "", 8, "nosuch", SECURITY_ERR_NOT_SUPPORTED, SECURITY_ERR_NOT_FOUND},
        {"password", 155, 8452, "", 0, "nosuch", SECURITY_ERR_NOT_SUPPORTED, SECURITY_ERR_NOT_SUPPORTED},
        {"roles, to change", 158, 4292, "", 0, "nosuch", SECURITY_ERR_NOT_FOUND, SECURITY_ERR_NOT_FOUND},
        {"roles", 5155, 4292, "", 0, "nosuch", SECURITY_ERR_NOT_FOUND, SECURITY_ERR_NOT_FOUND},
        {"locales", 5161, 4292, "", 0, "nosuch", SECURITY_ERR_NOT_FOUND, SECURITY_ERR_NOT_FOUND},
        {"key", 170, 2328, in_field("zoe", 2328), 0, "zoe", 0, 0},
        {"key file", 170, 8321, in_field("zoe", 8321), 0, "zoe", 0, 0},
        {"look-up", 5156, 2328, "", 0, "zoe", SECURITY_ERR_NOT_FOUND, SECURITY_ERR_NOT_PERMITTED},
        {"look-up of a file", 5156, 8321, "", 0, "zoe", SECURITY_ERR_NOT_FOUND, SECURITY_ERR_NOT_PERMITTED},
        {"key pair", 5157, 5720, "", 0, word(9) + word(0) + "nosuch", SECURITY_ERR_NO_USER,
         SECURITY_ERR_NOT_SUPPORTED},
        {"transfer", 5158, 5720, "", 8, "nosuch", SECURITY_ERR_NOT_SUPPORTED, SECURITY_ERR_NOT_SUPPORTED},
        {"banner", 171, 1, "#", 0, "", 0, 0},
        {"web server", 283649, 12, web(80, 443, 1), 0, "", 0, 0},
        {"web text", 283650, 2108, "", 0, word(0), SECURITY_PSS_NO_KEY, SECURITY_PSS_NO_KEY},
        {"self-tests", 2215, 176, "", 0, "", 0, 0},
        {"orphans", 0x51000001, 4, "", 0, "", SECURITY_ERR_NOT_SUPPORTED, 0},
    };
    for (const auto& c : cases) {
        std::string record(c.size, '\xff');
        record.replace(c.key_at, c.key.size(), c.key);
        if (c.key_at + c.key.size() < c.size && !c.key.empty()) record[c.key_at + c.key.size()] = '\0';
        if (!c.stored.empty()) {
            EXPECT_EQ(SECURITY_OK, ask(c.type, SET_REQ, c.stored)) << c.what;
        }
        EXPECT_EQ(c.got, ask(c.type, GET_REQ, record)) << c.what;
        EXPECT_EQ(c.deleted, ask(c.type, DEL_REQ, record)) << c.what;
    }
    EXPECT_EQ(std::size(cases), quill::routes().size());

    for (const quill::Route& route : quill::routes()) {
        for (const quill::Field& field : route.fields) {
            const bool key = field.use == quill::Field::Use::kKey;
            std::string record(route.size, '\0');
            record.replace(field.offset, 4, "\xff\xff\xff\xff");
            if (field.kind == quill::Field::Kind::kText)
                record.replace(field.offset, field.limit, field.limit, 'x');
            const auto refused = [&](uint32_t operation) {
                const uint32_t status = ask(route.type, operation, record);
                return status == SECURITY_ERR_REQUEST_TEXT || status == SECURITY_ERR_REQUEST_COUNT;
            };
            EXPECT_EQ(key, refused(GET_REQ)) << route.type << " " << field.offset;
            if (route.rights.write == quill::Access::kNobody) continue;
            EXPECT_EQ(key, refused(DEL_REQ)) << route.type << " " << field.offset;
            EXPECT_TRUE(refused(SET_REQ)) << route.type << " " << field.offset;
        }
    }
}

TEST_F(Routes, LengthsFitTheirFields) {
    EXPECT_EQ(SECURITY_OK, ask(5159, SET_REQ, secret(1, 0, std::string(1023, 's'), 1024)));
    EXPECT_EQ(SECURITY_ERR_REQUEST_COUNT, ask(5159, SET_REQ, secret(1, 0, "s", 1025)));
    for (const uint32_t type : {0, 100})
        EXPECT_EQ(SECURITY_ERR_REQUEST_TEXT,
                  ask(5159, SET_REQ, secret(1, type, std::string(1024, 's'), 1024)));
}

// Each of a user of its own, whose budget has room for it.
TEST_F(Routes, ChangesAndRefusalsAreToldInWords) {
    const struct {
        uint32_t type, operation;
        std::string record;
        const char* line;  // up to who asked
        bool administrator = true;
    } cases[] = {
        {161, SET_REQ, service(2, 1), "service telnet: set to 1"},
        {161, SET_REQ, service(2, 0), "service telnet: 1 to 0"},
        {161, SET_REQ, service(2, 1),
         "service telnet: set to 1 refused: the caller is not permitted to do this", false},
        {161, SET_REQ, service(13, 0xffffffff), "service 13: set to 4294967295"},
        {161, DEL_REQ, service(2, 0), nullptr},
        {161, GET_REQ, service(2, 0), nullptr},
        {161, SET_REQ, service(22, 70000),
         "service ploty http port: set to 70000 refused: a port is out of range or the other's, or the "
         "switch not 0 or 1"},
        {171, SET_REQ, "@", "banner delimiter: # to @"},
        {171, SET_REQ, "\n", "banner delimiter: @ to byte 10"},
        {171, DEL_REQ, "\n", "banner delimiter: deleted"},
        {5159, SET_REQ, secret(15, 100, "S3cr3t", 6), "secret of level 15: changed"},
        {5159, GET_REQ, secret(15, 0, "", 0),
         "secret of level 15: read refused: the caller is not permitted to do this", false},
        {5159, DEL_REQ, secret(15, 0, "", 0), "secret of level 15: deleted"},
        {5159, DEL_REQ, secret(15, 0, "", 0),
         "secret of level 15: deletion refused: the store has no record under this key"},
        {165, SET_REQ, user("zoe", "S3cr3t"), "user record of 'zoe': changed"},
        {165, DEL_REQ, user("zoe", ""), "user record of 'zoe': deleted"},
        {165, SET_REQ, user("z'o\ne", "S3cr3t"), "user record of 'z.o.e': changed"},
        {165, SET_REQ, user(std::string(124, ' ') + "zoe\x7f", "S3cr3t"),
         "user record of '                                                                                   "
         " "
         "                                        zoe.': change refused: a text of the request has no "
         "terminator in its field"},
        {157, SET_REQ, account("root", "S3cr3t", "", ""),
         "account 'root': change (password) refused: the account has another home than the daemon gives"},
        {157, SET_REQ, account("no-such", "", "no'role", "2031-2-28"),
         "account 'no-such': creation (expiry 2031-2-28, roles no.role) refused: there is no role of this "
         "name"},
        {157, DEL_REQ, account("no-such", "", "", ""),
         "account 'no-such': deletion refused: the record does not exist"},
        {155, SET_REQ, password("no-such", "S3cr3t"),
         "password of 'no-such': change refused: the record does not exist"},
        {158, SET_REQ, list("no-such", {"a", "b"}),
         "roles of 'no-such': set to a, b refused: the record does not exist"},
        {5155, SET_REQ, list("no-such", {}),
         "roles of 'no-such': emptying refused: the record does not exist"},
        {5161, DEL_REQ, list("no-such", {"de"}),
         "locales of 'no-such': -de refused: the record does not exist"},
        {170, SET_REQ, in_field("zoe", 2328), "SSH key of 'zoe': changed"},
        {170, DEL_REQ, in_field("zoe", 2328), "SSH key of 'zoe': deleted"},
        {170, SET_REQ, in_field("", 8321),
         "SSH key of '': change refused: no such user, a reserved name or an empty one"},
        {5157, SET_REQ, key_pair(6, "no-such"),
         "DSA key pair of 'no-such': generation refused: no such user, a reserved name or an empty one"},
        {5157, DEL_REQ, key_pair(7, "no-such"),
         "RSA key pair of 'no-such': deletion refused: no such user, a reserved name or an empty one"},
        {283649, SET_REQ, web(80, 443, 1),
         "web server: http port 0 to 80, https port 0 to 443, switch 0 to 1"},
        {283649, SET_REQ, web(81, 443, 1), "web server: http port 80 to 81, https port 443, switch 1"},
        {283650, SET_REQ, web_text(0, "S3cr3t"),
         "web server: change of the certificate refused: the text is not a certificate in PEM form"},
        {283650, SET_REQ, web_text(1, "S3cr3t"),
         "web server: change of the key refused: the text is not a key in PEM form without a passphrase"},
        {283650, SET_REQ, web_text(0, "", 1),
         "web server: use of the certificate and key refused: the certificate or its key has not been sent "
         "yet"},
        {283650, DEL_REQ, web_text(1, "", 1),
         "web server: deletion of the key refused: the store has no record under this key"},
        {2215, SET_REQ, std::string(176, '\0'),
         "self-tests: run refused: an argument of the self-test request is missing"},
        {4711, SET_REQ, "abc",
         "request of type 4711, operation 3, 3 bytes refused: the daemon does not serve requests of this "
         "type"},
        {157, SET_REQ, "abc",
         "request of type 157, operation 3, 3 bytes refused: the record's length is not that of its request "
         "type"},
        {161, 9, service(2, 0),
         "request of type 161, operation 9, 8 bytes refused: the caller is not permitted to do this", false},
    };
    uid_t uid = 5000;
    for (const auto& c : cases) {
        log_lines().clear();
        ask(c.type, c.operation, c.record, c.administrator, ++uid, "ann\n'");
        const std::string by = ", by uid " + std::to_string(uid) + " pid 321 for 'ann..' in session 7";
        // Beside it may stand how many lines of another test's user were left out.
        std::erase_if(log_lines(), [&by](const std::string& line) { return !line.ends_with(by); });
        ASSERT_EQ(c.line != nullptr ? 1u : 0u, log_lines().size()) << c.line;
        if (c.line == nullptr) continue;
        EXPECT_EQ(c.line + by, log_lines()[0].substr(2));
        EXPECT_EQ(std::string::npos, log_lines()[0].find("S3cr3t"));
    }
}

uint32_t fail(uint32_t, uint32_t operation, void*) {
    return operation == GET_REQ ? SECURITY_ERR_NO_VALUE : throw std::bad_alloc();
}

TEST_F(Routes, WhatAHandlerThrowsPassesThroughTheLog) {
    const quill::Route route{161, 8, fail, {quill::Access::kEveryone, quill::Access::kEveryone}};
    std::string record = service(2, 1);
    quill::Request request{161, SET_REQ, 7, "ann", reinterpret_cast<unsigned char*>(record.data()), 8};
    quill::ConnectionState state;
    EXPECT_THROW(quill::dispatch({&route, 1}, store, {true, true, 4000, 321}, state, request),
                 std::bad_alloc);
    EXPECT_EQ("4 service telnet: set to 1 failed: std::bad_alloc, by uid 4000 pid 321 for 'ann' in session 7",
              log_lines().back());
}

TEST_F(Routes, NobodyFloodsTheLogOrTakesItFromOthers) {
    for (int i = 0; i < 1000; ++i) ask(161, SET_REQ, service(2, 1), false, 4001);
    EXPECT_GT(50u, log_lines().size());
    ask(161, SET_REQ, service(2, 1), true, 4002);
    EXPECT_EQ(0u, log_lines().back().find("5 service telnet: set to 1, by uid 4002")) << log_lines().back();
}

}  // namespace
