// What stands between a request and its handler: the checks of all routes, the change log and lost updates of
// lists, over a real store.
#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <new>

#include "base/name_list.h"
#include "platform/log.h"
#include "tests/daemon/routes_test.h"
#include "tests/fakes/log.h"
#include "tests/support/store.h"

namespace {

using quill::Access, quill::Answer, quill::Field, quill::NameList, quill::Peer, quill::Route;

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
class Dispatch : public RoutesTest {
 protected:
    Dispatch() { log_lines().clear(); }
};

// Clients that set only the key leave anything in the other fields.
TEST_F(Dispatch, ReadingAndDeletingCheckKeysAlone) {
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
    EXPECT_EQ(std::size(cases), routes.size());
}

TEST_F(Dispatch, OnlyRecordsOfARoutesSizeWithGoodFieldsAreHandled) {
    for (const uint32_t type : {0u, 164u, 0xffffffffu})
        EXPECT_EQ(SECURITY_ERR_REQUEST_TYPE, ask(type, SET_REQ, std::string(264, '\0')));
    for (const Route& route : routes) {
        for (const size_t size : {size_t{0}, size_t{route.size} - 1, size_t{route.size} + 1})
            EXPECT_EQ(SECURITY_ERR_REQUEST_SIZE, ask(route.type, SET_REQ, std::string(size, '\0')));
        for (const Field& field : route.fields) {
            const auto refused = [&](uint32_t operation, const std::string& content) {
                std::string record(route.size, '\0');
                record.replace(field.offset, content.size(), content);
                const uint32_t status = ask(route.type, operation, record);
                return status == SECURITY_ERR_REQUEST_TEXT || status == SECURITY_ERR_REQUEST_COUNT;
            };
            const auto limit = static_cast<uint32_t>(field.limit);
            const bool is_text = field.kind == Field::Kind::kText, is_key = field.use == Field::Use::kKey;
            const bool is_writable = route.rights.write != Access::kNobody;
            const auto count = [&](uint32_t number) {  // in the byte order of the wire
                std::string record(route.size, '\0');
                memcpy(record.data() + field.offset, &number, sizeof number);
                security_conf_cmi_byteorder_convert(static_cast<int32_t>(route.type), record.data());
                return record.substr(field.offset, sizeof number);
            };
            std::vector<std::string> bad = {count(limit + 1), count(UINT32_MAX), count(0x80000000)};
            if (is_text) bad = {std::string(limit, 'x')};
            for (const std::string& content : bad) {
                EXPECT_EQ(is_key, refused(GET_REQ, content)) << route.type << " " << field.offset;
                if (!is_writable) continue;
                EXPECT_EQ(is_key, refused(DEL_REQ, content)) << route.type << " " << field.offset;
                EXPECT_TRUE(refused(SET_REQ, content)) << route.type << " " << field.offset;
            }
            EXPECT_FALSE(refused(GET_REQ, is_text ? std::string(limit - 1, 'x') : count(limit)));
        }
    }
    for (const uint32_t operation : {SET_REQ, DEL_REQ})
        EXPECT_EQ(SECURITY_ERR_REQUEST_TEXT,
                  ask(158, operation, list("root", {"x"}).replace(132, 65, 65, 'x')));
    // A length may be that of the whole field, in which the text ends nevertheless.
    EXPECT_EQ(SECURITY_OK, ask(5159, SET_REQ, secret(1, 0, std::string(1023, 's'), 1024)));
    for (const uint32_t type : {0, 100})
        EXPECT_EQ(SECURITY_ERR_REQUEST_TEXT,
                  ask(5159, SET_REQ, secret(1, type, std::string(1024, 's'), 1024)));
}

// Per operation, 0 to 5: whether it is permitted.
TEST_F(Dispatch, Rights) {
    std::string open_to_read;
    for (const Route& route : routes) {
        const auto permitted = [&](const Peer& peer) {
            std::string result;
            for (uint32_t operation = 0; operation <= 5; ++operation) {
                // Its keys have no end, so no handler of accounts is called.
                const Answer answer = dispatch(route.type, operation, std::string(route.size, '\xff'), peer);
                const bool refused = answer.status == SECURITY_ERR_NOT_PERMITTED;
                EXPECT_FALSE(refused && (answer.length != 0 || answer.changed)) << route.type;
                result += refused ? '-' : 'y';
            }
            return result;
        };
        const bool lookup = route.type == SECURITY_USER_LOOKUP_REQUEST;
        EXPECT_EQ(lookup ? "-yy---" : "yyyyyy", permitted(kRoot)) << route.type;
        EXPECT_EQ("------", permitted(kUnknown)) << route.type;
        const std::string other = permitted(kOther);
        EXPECT_TRUE(other == "-yy---" || other == "------") << route.type << other;
        if (other == "-yy---") open_to_read += std::to_string(route.type) + " ";
    }
    EXPECT_EQ("161 158 5155 5161 5156 5156 171 283649 2215 ", open_to_read);
}

TEST_F(Dispatch, ARecordIsReturnedOnSuccessAndWhereItExplains) {
    const struct {
        uint32_t type, operation;
        std::string record;
        uint32_t status;
        bool returned;
    } cases[] = {
        {161, SET_REQ, service(2, 77), 0, true},
        {161, GET_REQ, service(2, 0), 0, true},
        {5159, GET_REQ, secret(3, 0, "", 0), SECURITY_ERR_NO_PRIV_LVL, false},
        {5159, DEL_REQ, secret(3, 0, "", 0), SECURITY_PSS_NO_KEY, false},
        {157, SET_REQ, account("root", "", "", ""), SECURITY_ERR_OTHER_HOME, true},
    };
    for (const auto& c : cases) {
        const Answer answer = dispatch(c.type, c.operation, c.record);
        EXPECT_EQ(c.status, answer.status) << c.type;
        EXPECT_EQ(c.returned ? c.record.size() : 0, answer.length) << c.type;
        EXPECT_EQ(c.operation != GET_REQ, answer.changed) << "also if it failed: " << c.type;
        if (c.type != 161) continue;
        EXPECT_EQ(service(2, 77), returned(0, 8));
    }
    // A clear secret is stored as a hash without a salt, whatever the client left there.
    std::string with_salt = secret(4, 100, "text", 4);
    with_salt.replace(1104, 4, word(5));
    EXPECT_EQ(SECURITY_OK, ask(5159, SET_REQ, with_salt));
    EXPECT_EQ(SECURITY_OK, ask(5159, GET_REQ, secret(4, 0, "", 0)));
    EXPECT_EQ(word(0), returned(1104, 4));
    // Clients change a password in the record that they got, which may hold the rest of a longer one.
    EXPECT_EQ(SECURITY_OK, ask(165, SET_REQ, user("amy", std::string("new\0ecthorse", 12))));
    EXPECT_EQ(SECURITY_OK, ask(165, GET_REQ, user("amy", "")));
    EXPECT_EQ(user("amy", "new"), returned(0, 264));
}

// Each of a user of its own, whose budget has room for it.
TEST_F(Dispatch, ChangesAndRefusalsAreToldInWords) {
    const struct {
        uint32_t type, operation;
        std::string record;
        std::string line;  // up to the refusal or who asked; empty: none
        uint32_t status = SECURITY_OK;
        bool administrator = true;
    } cases[] = {
        {161, SET_REQ, service(2, 1), "service telnet: set to 1"},
        {161, SET_REQ, service(2, 0), "service telnet: 1 to 0"},
        {161, SET_REQ, service(2, 1), "service telnet: set to 1", SECURITY_ERR_NOT_PERMITTED, false},
        {161, SET_REQ, service(13, 0xffffffff), "service 13: set to 4294967295"},
        {161, DEL_REQ, service(2, 0), ""},
        {161, GET_REQ, service(2, 0), ""},
        {161, SET_REQ, service(22, 70000), "service ploty http port: set to 70000",
         SECURITY_ERR_WEB_SETTINGS},
        {171, SET_REQ, "@", "banner delimiter: # to @"},
        {171, SET_REQ, "\x7f", "banner delimiter: @ to byte 127"},
        {171, SET_REQ, " ", "banner delimiter: byte 127 to byte 32"},
        {171, SET_REQ, "\n", "banner delimiter: byte 32 to byte 10"},
        {171, DEL_REQ, "\n", "banner delimiter: deleted"},
        {5159, SET_REQ, secret(15, 100, "S3cr3t", 6), "secret of level 15: changed"},
        {5159, GET_REQ, secret(15, 0, "", 0), "secret of level 15: read", SECURITY_ERR_NOT_PERMITTED, false},
        {5159, DEL_REQ, secret(15, 0, "", 0), "secret of level 15: deleted"},
        {5159, DEL_REQ, secret(15, 0, "", 0), "secret of level 15: deletion", SECURITY_PSS_NO_KEY},
        {165, SET_REQ, user("zoe", "S3cr3t"), "user record of 'zoe': changed"},
        {165, DEL_REQ, user("zoe", ""), "user record of 'zoe': deleted"},
        {165, SET_REQ, user("z'o\ne", "S3cr3t"), "user record of 'z.o.e': changed"},
        {165, SET_REQ, user(std::string(124, ' ') + "zoe\x7f", "S3cr3t"),
         "user record of '" + std::string(124, ' ') + "zoe.': change", SECURITY_ERR_REQUEST_TEXT},
        {157, SET_REQ, account("root", "S3cr3t", "", ""), "account 'root': change (password)",
         SECURITY_ERR_OTHER_HOME},
        {157, SET_REQ, account("no-such", "", "no'role", "2031-2-28"),
         "account 'no-such': creation (expiry 2031-2-28, roles no.role)", SECURITY_ERR_UNKNOWN_ROLE},
        {157, DEL_REQ, account("no-such", "", "", ""), "account 'no-such': deletion", SECURITY_ERR_NOT_FOUND},
        {155, SET_REQ, password("no-such", "S3cr3t"), "password of 'no-such': change",
         SECURITY_ERR_NOT_FOUND},
        {158, SET_REQ, list("no-such", {"a", "b"}), "roles of 'no-such': set to a, b",
         SECURITY_ERR_NOT_FOUND},
        {158, DEL_REQ, list("root", {"priv-2"}), "roles of 'root': -priv-2", SECURITY_ERR_ROLE_NOT_HELD},
        {158, SET_REQ, list("root", {"priv-1", "priv-2"}), "roles of 'root': +priv-1, +priv-2"},
        {158, SET_REQ, list("root", {"priv-2", "priv-1"}), "roles of 'root': put in another order"},
        {158, SET_REQ, list("root", {"priv-2", "priv-1"}), "roles of 'root': unchanged"},
        {158, SET_REQ, list("root", {"priv-2", "x, y"}), "roles of 'root': +x..y, -priv-1",
         SECURITY_ERR_UNKNOWN_ROLE},
        {158, DEL_REQ, list("root", {"priv-2"}), "roles of 'root': -priv-2"},
        {158, DEL_REQ, list("root", {"priv-2"}), "roles of 'root': -priv-2", SECURITY_ERR_ROLE_NOT_HELD},
        {158, DEL_REQ, list("root", {}), "request of type 158, operation 4, 4292 bytes",
         SECURITY_ERR_REQUEST_COUNT},
        {158, SET_REQ, list("root", {}), "roles of 'root': -priv-1"},
        {5155, SET_REQ, list("no-such", {}), "roles of 'no-such': emptying", SECURITY_ERR_NOT_FOUND},
        {5161, DEL_REQ, list("no-such", {"de"}), "locales of 'no-such': -de", SECURITY_ERR_NOT_FOUND},
        {170, SET_REQ, in_field("zoe", 2328), "SSH key of 'zoe': changed"},
        {170, DEL_REQ, in_field("zoe", 2328), "SSH key of 'zoe': deleted"},
        {170, SET_REQ, in_field("", 2328), "SSH key of '': change", SECURITY_ERR_NO_USER},
        {170, SET_REQ, in_field("", 8321), "SSH key of '': change", SECURITY_ERR_NO_USER},
        {5157, SET_REQ, key_pair(6, "no-such"), "DSA key pair of 'no-such': generation",
         SECURITY_ERR_NO_USER},
        {5157, DEL_REQ, key_pair(7, "no-such"), "RSA key pair of 'no-such': deletion", SECURITY_ERR_NO_USER},
        {283649, SET_REQ, web(80, 443, 1),
         "web server: http port 0 to 80, https port 0 to 443, switch 0 to 1"},
        {283649, SET_REQ, web(81, 443, 1), "web server: http port 80 to 81, https port 443, switch 1"},
        {283650, SET_REQ, web_text(0, "S3cr3t"), "web server: change of the certificate",
         SECURITY_ERR_WEB_CERTIFICATE},
        {283650, SET_REQ, web_text(1, "S3cr3t"), "web server: change of the key", SECURITY_ERR_WEB_KEY},
        {283650, SET_REQ, web_text(0, "", 1), "web server: use of the certificate and key",
         SECURITY_ERR_WEB_INCOMPLETE},
        {283650, DEL_REQ, web_text(1, "", 1), "web server: deletion of the key", SECURITY_PSS_NO_KEY},
        {2215, SET_REQ, std::string(176, '\0'), "self-tests: run", SECURITY_ERR_MISSING_ARGUMENT},
        {4711, SET_REQ, "abc", "request of type 4711, operation 3, 3 bytes", SECURITY_ERR_REQUEST_TYPE},
        {157, SET_REQ, "abc", "request of type 157, operation 3, 3 bytes", SECURITY_ERR_REQUEST_SIZE},
        {161, 9, service(2, 0), "request of type 161, operation 9, 8 bytes", SECURITY_ERR_NOT_PERMITTED,
         false},
    };
    uid_t uid = 5000;
    for (const auto& c : cases) {
        log_lines().clear();
        const Peer peer{true, c.administrator, ++uid, 321};
        EXPECT_EQ(c.status, dispatch(c.type, c.operation, c.record, peer, "ann\n'").status);
        const std::string refusal = c.status == 0 ? "" : std::string(" refused: ") + syserr2str(c.status);
        const std::string by = ", by uid " + std::to_string(uid) + " pid 321 for 'ann..' in session 7";
        // Beside it may stand how many lines of another test's user were left out.
        std::erase_if(log_lines(), [&by](const std::string& line) { return !line.ends_with(by); });
        ASSERT_EQ(c.line.empty() ? 0u : 1u, log_lines().size()) << c.line;
        if (c.line.empty()) continue;
        EXPECT_EQ(c.line + refusal + by, log_lines()[0].substr(2));
        EXPECT_EQ(std::string::npos, log_lines()[0].find("S3cr3t"));
    }
}

// A walk over the accounts returns qualified names.
TEST_F(Dispatch, QualifiedNamesOfTheOwnContextMeanPlainOnes) {
    setenv("SYSMGR_VDC_ID", "2", 1);
    EXPECT_EQ(SECURITY_OK, ask(170, SET_REQ, in_field("zoe", 2328)));
    EXPECT_EQ(SECURITY_OK, ask(170, GET_REQ, in_field("zoe#02#", 2328)));
    EXPECT_EQ(in_field("zoe#02#", 128), returned(0, 128));
    EXPECT_EQ(SECURITY_ERR_NO_USER, ask(170, SET_REQ, in_field("zoe#03#", 2328)));
    unsetenv("SYSMGR_VDC_ID");
}

TEST_F(Dispatch, ListsWaitForTheRepairOfAccounts) {
    EXPECT_EQ(PSS_OK, put(store, word(0x10000), "a journal entry of another version"));
    for (const uint32_t type : {158u, 5155u, 5161u})
        EXPECT_EQ(SECURITY_ERR_ACCOUNT_REPAIR, ask(type, SET_REQ, list("root", {}))) << type;
}

// Of users without an account, 25 at a time; a user record alone needs none.
TEST_F(Dispatch, OrphansAreDropped) {
    const std::string record = in_field("no-such", 128) + word(1) + word(0) + std::string(128, '\0');
    EXPECT_EQ(SECURITY_OK, ask(165, SET_REQ, record));
    for (int i = 10; i < 40; ++i)
        EXPECT_EQ(SECURITY_OK, ask(170, SET_REQ, in_field("no-such" + std::to_string(i), 2328)));
    for (const uint32_t dropped : {25u, 5u, 0u}) {
        EXPECT_EQ(SECURITY_OK, ask(SECURITY_ORPHANS_REQUEST, DEL_REQ, word(0)));
        EXPECT_EQ(bytes_of(dropped), returned(0, 4));
    }
    EXPECT_EQ(SECURITY_OK, ask(165, GET_REQ, record));
}

std::vector<uint32_t> handled;  // operations
bool muted = false;

uint32_t fail(uint32_t, uint32_t operation, void*) {
    handled.push_back(operation);
    muted = quill::client_log().muted;
    return operation == GET_REQ ? SECURITY_ERR_NO_VALUE : throw std::bad_alloc();
}

TEST_F(Dispatch, ExceptionsOfHandlersAreLoggedAndPassedOn) {
    constexpr quill::Rights kOpen{Access::kEveryone, Access::kEveryone};
    const Route failing[] = {{161, 8, fail, kOpen}, {165, 264, fail, kOpen}};
    routes = failing;
    EXPECT_THROW(ask(161, SET_REQ, service(2, 1), {true, true, 4000, 321}), std::bad_alloc);
    EXPECT_EQ("4 service telnet: set to 1 failed: std::bad_alloc, by uid 4000 pid 321 for 'ann' in session 7",
              log_lines().back());
    EXPECT_THROW(ask(165, SET_REQ, user("zoe", "")), std::bad_alloc);
    EXPECT_EQ((std::vector<uint32_t>{GET_REQ, SET_REQ, SET_REQ}), handled)
        << "an old value only where it is shown";
}

TEST_F(Dispatch, NobodyFloodsTheLogOrTakesItFromOthers) {
    for (int i = 0; i < 1000; ++i) ask(161, SET_REQ, service(2, 1), {true, false, 4001, 321});
    EXPECT_GT(50u, log_lines().size());
    const Route failing{161, 8, fail, {Access::kEveryone, Access::kEveryone}};
    routes = {&failing, 1};
    EXPECT_THROW(ask(161, SET_REQ, service(2, 1), {true, false, 4001, 321}), std::bad_alloc);
    EXPECT_TRUE(muted) << "lines of the handler too";
    EXPECT_FALSE(quill::client_log().muted);
    routes = quill::routes();
    ask(161, SET_REQ, service(2, 1), {true, true, 4002, 321});
    EXPECT_EQ(0u, log_lines().back().find("5 service telnet: set to 1, by uid 4002")) << log_lines().back();
}

// Lists by kind and user, a letter for each name.
std::map<std::string, std::string> lists;

template <char kind>
uint32_t handle_list(uint32_t, uint32_t operation, void* record) {
    auto& list = *static_cast<NameList*>(record);
    const auto found = lists.find(kind + std::string(list.user_name));
    if (found == lists.end()) return SECURITY_ERR_NOT_FOUND;
    if (operation == SET_REQ) found->second.clear();
    if (operation == SET_REQ)
        for (int32_t i = 0; i < list.count; ++i) found->second += list.names[i][0];
    if (operation == DEL_REQ) std::erase(found->second, list.names[0][0]);
    if (operation != GET_REQ) return SECURITY_OK;
    list.count = static_cast<int32_t>(found->second.size());
    memset(list.names, '#', sizeof list.names);
    for (size_t i = 0; i < found->second.size(); ++i) {
        strcpy(list.names[i], std::string(8, found->second[i]).c_str());
    }
    return SECURITY_OK;
}

constexpr quill::Rights kPublic{Access::kEveryone, Access::kAdministrators};
constexpr Route kListRoutes[] = {
    {SECURITY_ROLE_ASSIGN_REQUEST, sizeof(NameList), handle_list<'r'>, kPublic},
    {SECURITY_ROLES_REQUEST, sizeof(NameList), handle_list<'r'>, kPublic},
    {SECURITY_LOCALE_ASSIGN_REQUEST, sizeof(NameList), handle_list<'l'>, kPublic},
};

// A list that a connection read in order to change it is stored only while it is still the same.
TEST_F(Dispatch, NoChangeOfAListIsLost) {
    std::array<quill::ConnectionState, 3> connections;
    const auto ask_list = [&](size_t connection, uint32_t type, uint32_t operation, const std::string& user,
                              const std::string& letters) {
        std::vector<std::string> names;
        for (const char letter : letters) names.emplace_back(8, letter);
        std::string record = list(user, names);
        quill::Request request{type,
                               operation,
                               0,
                               "",
                               reinterpret_cast<unsigned char*>(record.data()),
                               static_cast<uint32_t>(record.size())};
        return quill::dispatch(kListRoutes, store, kRoot, connections.at(connection), request).status;
    };
    const uint32_t kToChange = SECURITY_ROLE_ASSIGN_REQUEST, kToRead = SECURITY_ROLES_REQUEST,
                   kLocales = SECURITY_LOCALE_ASSIGN_REQUEST;
    lists = {{"ramy", ""}, {"rbob", ""}, {"lamy", ""}};
    const struct {
        const char* what;
        size_t connection;
        uint32_t type, operation;
        const char *user, *names;
        uint32_t want = SECURITY_OK;
    } steps[] = {
        {"never read: stored as it is", 0, kToChange, SET_REQ, "amy", "a"},
        {"the first reads", 0, kToChange, GET_REQ, "amy", ""},
        {"and the second", 1, kToChange, GET_REQ, "amy", ""},
        {"another's list", 1, kToChange, GET_REQ, "bob", ""},
        {"the first stores", 0, kToChange, SET_REQ, "amy", "ab"},
        {"the second lost", 1, kToChange, SET_REQ, "amy", "ac", SECURITY_ERR_CHANGED},
        {"until it reads again", 1, kToChange, SET_REQ, "amy", "ac", SECURITY_ERR_CHANGED},
        {"by whatever type", 1, kToRead, SET_REQ, "amy", "ac", SECURITY_ERR_CHANGED},
        {"not over another's list", 1, kToChange, SET_REQ, "bob", "x"},
        {"nor over a list of another kind", 1, kLocales, SET_REQ, "amy", "e"},
        {"the first again, over its own change", 0, kToChange, SET_REQ, "amy", "abd"},
        {"to read it is not to read it for a change", 1, kToRead, GET_REQ, "amy", ""},
        {"so that is refused still", 1, kToChange, SET_REQ, "amy", "ac", SECURITY_ERR_CHANGED},
        {"and nothing where it was never read otherwise", 2, kToRead, GET_REQ, "amy", ""},
        {"whatever becomes of it", 0, kToChange, SET_REQ, "amy", "dba"},
        {"as before", 2, kToChange, SET_REQ, "amy", "ab"},
        {"the second reads again", 1, kToChange, GET_REQ, "amy", ""},
        {"and stores", 1, kToChange, SET_REQ, "amy", "abc"},
        {"a removal", 1, kToChange, DEL_REQ, "amy", "b"},
        {"would be undone", 1, kToChange, SET_REQ, "amy", "abcd", SECURITY_ERR_CHANGED},
        {"a long list", 2, kToChange, SET_REQ, "bob", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmn"},
        {"read", 0, kToChange, GET_REQ, "bob", ""},
        {"and stored", 0, kToChange, SET_REQ, "bob", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmno"},
        {"changed at its end", 2, kToChange, SET_REQ, "bob", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnp"},
        {"and refused", 0, kToChange, SET_REQ, "bob", "A", SECURITY_ERR_CHANGED},
        {"locales: read", 0, kLocales, GET_REQ, "amy", ""},
        {"locales: changed by another", 1, kLocales, SET_REQ, "amy", "ed"},
        {"locales: refused", 0, kLocales, SET_REQ, "amy", "ef", SECURITY_ERR_CHANGED},
    };
    for (const auto& step : steps) {
        const auto before = lists;
        EXPECT_EQ(step.want, ask_list(step.connection, step.type, step.operation, step.user, step.names))
            << step.what;
        EXPECT_TRUE(step.want == SECURITY_OK || before == lists) << step.what;
    }
    lists.erase("ramy");
    EXPECT_EQ(SECURITY_ERR_NOT_FOUND, ask_list(1, kToChange, SET_REQ, "amy", "a")) << "deleted since";

    // So many lists cannot be remembered, and none that may have been read is stored unseen.
    for (int user = 0; user <= 1024; ++user) {
        lists["r" + std::to_string(user)] = "";
        ask_list(0, kToChange, GET_REQ, std::to_string(user), "");
    }
    lists["r0"] = "x";
    EXPECT_EQ(SECURITY_ERR_CHANGED, ask_list(0, kToChange, SET_REQ, "0", "y"));
    EXPECT_EQ(SECURITY_OK, ask_list(2, kToChange, SET_REQ, "1", "y")) << "by others it is";
    EXPECT_EQ(SECURITY_OK, ask_list(0, kToChange, GET_REQ, "0", ""));
    EXPECT_EQ(SECURITY_OK, ask_list(0, kToChange, SET_REQ, "0", "xy"));

    // A list that was read under the qualified name, as a walk over the accounts returns it.
    setenv("SYSMGR_VDC_ID", "2", 1);
    lists = {{"ramy", "a"}, {"ramy#02#", ""}};
    EXPECT_EQ(SECURITY_OK, ask_list(2, kToChange, GET_REQ, "amy#02#", ""));
    EXPECT_EQ(SECURITY_ERR_CHANGED, ask_list(2, kToChange, SET_REQ, "amy", "b"));
    unsetenv("SYSMGR_VDC_ID");
}

}  // namespace
