// What stands between a request and its handler, on routes made up for the purpose.
#include "daemon/dispatch.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/name_list.h"
#include "quillsecurity.h"

namespace {

using quill::Access;
using quill::Answer;
using quill::Peer;

// What the handlers were given, and what they answer.
struct Handled {
    std::string route;
    uint32_t store, operation;
    std::string record;
};
std::vector<Handled> handled;
uint32_t status_to_give;

template <class Record>
uint32_t note(const char* route, uint32_t store, uint32_t operation, void* record) {
    handled.push_back({route, store, operation, std::string(static_cast<char*>(record), sizeof(Record))});
    return status_to_give;
}

uint32_t handle_secret(uint32_t store, uint32_t operation, void* record) {
    const uint32_t status = note<security_priv_info>("secret", store, operation, record);
    static_cast<security_priv_info*>(record)->priv_lvl = 0x01020304;
    return status;
}

uint32_t handle_user(uint32_t store, uint32_t operation, void* record) {
    return note<security_user>("user", store, operation, record);
}
uint32_t handle_line(uint32_t store, uint32_t operation, void* record) {
    return note<ssh_key_rec>("line", store, operation, record);
}
uint32_t handle_file(uint32_t store, uint32_t operation, void* record) {
    return note<ssh_key_new_rec>("file", store, operation, record);
}

// Lists by kind and user, a letter for each name.
std::map<std::string, std::string> lists;

template <char kind>
uint32_t handle_list(uint32_t, uint32_t operation, void* record) {
    auto& list = *static_cast<quill::NameList*>(record);
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

using enum quill::Field::Kind;
using enum quill::Field::Use;
constexpr quill::Field kSecret[] = {{kCount, kValue, offsetof(security_priv_info, secret_len), 1024},
                                    {kCount, kValue, offsetof(security_priv_info, salt_len), 64}};
constexpr quill::Field kUser[] = {{kText, kKey, 0, 128},
                                  {kText, kValue, offsetof(security_user, password), 128}};

constexpr quill::Rights kPrivate{Access::kAdministrators, Access::kAdministrators};
constexpr quill::Rights kPublic{Access::kEveryone, Access::kAdministrators};
constexpr quill::Rights kOpen{Access::kEveryone, Access::kEveryone};
constexpr quill::Rights kLookUp{Access::kEveryone, Access::kNobody};

constexpr quill::Route kRoutes[] = {
    {SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), handle_secret, kPrivate, kSecret},
    {SECURITY_USER_REQUEST, sizeof(security_user), handle_user, kPublic, kUser},
    {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_rec), handle_line, kOpen},
    {SECURITY_USER_LOOKUP_REQUEST, sizeof(ssh_key_rec), handle_line, kLookUp},
    {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_new_rec), handle_file, kOpen},
    {SECURITY_ROLE_ASSIGN_REQUEST, sizeof(quill::NameList), handle_list<'r'>, kPublic},
    {SECURITY_ROLES_REQUEST, sizeof(quill::NameList), handle_list<'r'>, kPublic},
    {SECURITY_LOCALE_ASSIGN_REQUEST, sizeof(quill::NameList), handle_list<'l'>, kPublic},
};

constexpr Peer kRoot{true, true, 0, 1}, kOther{true, false, 1000, 1}, kUnknown{};

class Dispatch : public testing::Test {
 protected:
    Dispatch() {
        handled.clear();
        status_to_give = SECURITY_OK;
    }

    Answer ask(uint32_t type, uint32_t operation, const std::string& given, const Peer& peer = kRoot) {
        memset(bytes, '#', sizeof bytes);
        memcpy(bytes, given.data(), given.size());
        quill::Request request{type, operation, 0, "", bytes, static_cast<uint32_t>(given.size())};
        return quill::dispatch(kRoutes, 42, peer, state, request);
    }

    // About a list, whose names are letters, on a connection of its own number.
    uint32_t ask_list(size_t connection, uint32_t type, uint32_t operation, const std::string& user,
                      const std::string& names) {
        quill::NameList list{};
        user.copy(list.user_name, 127);
        list.count = static_cast<int32_t>(names.size());
        for (size_t i = 0; i < names.size(); ++i) memset(list.names[i], names[i], 8);
        quill::Request request{type, operation, 0, "", reinterpret_cast<unsigned char*>(&list), sizeof list};
        return quill::dispatch(kRoutes, 42, kRoot, connections.at(connection), request).status;
    }

    uint32_t status_of(uint32_t type, const std::string& given) { return ask(type, SET_REQ, given).status; }

    alignas(16) unsigned char bytes[SECURITY_CMI_MAX_RECORD];
    quill::ConnectionState state;
    std::array<quill::ConnectionState, 3> connections;
};

template <class Record>
std::string wire(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST_F(Dispatch, OnlyARecordOfItsTypesSizeIsHandled) {
    EXPECT_EQ(SECURITY_ERR_REQUEST_TYPE, status_of(0, ""));
    EXPECT_EQ(SECURITY_ERR_REQUEST_TYPE, status_of(164, std::string(264, '\0')));
    EXPECT_EQ(SECURITY_ERR_REQUEST_TYPE, status_of(0xffffffff, std::string(264, '\0')));
    for (const size_t size : {0, 1, 263, 265, 20480})
        EXPECT_EQ(SECURITY_ERR_REQUEST_SIZE, status_of(SECURITY_USER_REQUEST, std::string(size, '\0')))
            << size;
    EXPECT_EQ(SECURITY_ERR_REQUEST_SIZE, status_of(SECURITY_SSHKEY_FILE_REQUEST, std::string(2329, '\0')));
    EXPECT_TRUE(handled.empty());

    EXPECT_EQ(SECURITY_OK, status_of(SECURITY_SSHKEY_FILE_REQUEST, std::string(8321, '\0')));
    EXPECT_EQ(SECURITY_OK, status_of(SECURITY_SSHKEY_FILE_REQUEST, std::string(2328, '\0')));
    ASSERT_EQ(2u, handled.size());
    EXPECT_EQ("file", handled[0].route);
    EXPECT_EQ("line", handled[1].route);
    EXPECT_EQ(42u, handled[1].store);
}

TEST_F(Dispatch, TextsEndInTheirFields) {
    const struct {
        size_t name, password;  // characters
        uint32_t want;
    } cases[] = {
        {0, 0, SECURITY_OK},
        {127, 127, SECURITY_OK},
        {128, 127, SECURITY_ERR_REQUEST_TEXT},
        {127, 128, SECURITY_ERR_REQUEST_TEXT},
    };
    for (const auto& c : cases) {
        security_user user{};
        memset(user.user_name, 'n', c.name);
        memset(user.password, 'p', c.password);
        handled.clear();
        EXPECT_EQ(c.want, status_of(SECURITY_USER_REQUEST, wire(user))) << c.name << " " << c.password;
        EXPECT_EQ(c.want == SECURITY_OK, handled.size() == 1);
    }
}

TEST_F(Dispatch, CountsAreInRange) {
    const struct {
        int32_t secret, salt;
        uint32_t want;
    } cases[] = {
        {0, 0, SECURITY_OK},
        {1024, 64, SECURITY_OK},
        {1025, 0, SECURITY_ERR_REQUEST_COUNT},
        {-1, 0, SECURITY_ERR_REQUEST_COUNT},
        {0, 65, SECURITY_ERR_REQUEST_COUNT},
        {0, INT32_MIN, SECURITY_ERR_REQUEST_COUNT},
        {0x01000000, 0, SECURITY_ERR_REQUEST_COUNT},  // 1 with its bytes turned
    };
    for (const auto& c : cases) {
        security_priv_info secret{};
        secret.secret_len = c.secret;
        secret.salt_len = c.salt;
        security_conf_cmi_byteorder_convert(SECURITY_PRIV_INFO_REQUEST, &secret);
        handled.clear();
        EXPECT_EQ(c.want, status_of(SECURITY_PRIV_INFO_REQUEST, wire(secret))) << c.secret << " " << c.salt;
        EXPECT_EQ(c.want == SECURITY_OK, handled.size() == 1);
    }
}

// Per operation, 0 to 5: whether it is permitted.
TEST_F(Dispatch, Permissions) {
    const struct {
        const char* what;
        uint32_t type;
        size_t size;
        const Peer& peer;
        const char* permitted;
    } cases[] = {
        {"secret, administrator", SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), kRoot, "yyyyyy"},
        {"secret, other", SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), kOther, "------"},
        {"secret, unknown", SECURITY_PRIV_INFO_REQUEST, sizeof(security_priv_info), kUnknown, "------"},
        {"open to read, administrator", SECURITY_USER_REQUEST, sizeof(security_user), kRoot, "yyyyyy"},
        {"open to read, other", SECURITY_USER_REQUEST, sizeof(security_user), kOther, "-yy---"},
        {"open to read, unknown", SECURITY_USER_REQUEST, sizeof(security_user), kUnknown, "------"},
        {"open, other", SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_rec), kOther, "yyyyyy"},
        {"to read alone, administrator", SECURITY_USER_LOOKUP_REQUEST, sizeof(ssh_key_rec), kRoot, "-yy---"},
        {"open, unknown", SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_rec), kUnknown, "------"},
    };
    for (const auto& c : cases) {
        std::string permitted;
        for (uint32_t operation = 0; operation <= 5; ++operation) {
            handled.clear();
            const Answer answer = ask(c.type, operation, std::string(c.size, '\0'), c.peer);
            const bool done = answer.status == SECURITY_OK;
            EXPECT_TRUE(done || answer.status == SECURITY_ERR_NOT_PERMITTED) << c.what;
            EXPECT_EQ(done, handled.size() == 1) << c.what << ", operation " << operation;
            permitted += done ? 'y' : '-';
            EXPECT_TRUE(!done || handled[0].operation == operation);
        }
        EXPECT_EQ(c.permitted, permitted) << c.what;
    }
}

TEST_F(Dispatch, WordsAreTurnedOnTheWayInAndOut) {
    security_priv_info secret{};
    secret.priv_lvl = 15;
    secret.encryption_type = 7;
    memcpy(secret.secret, "secret", 6);
    secret.secret_len = 6;
    secret.shadow_style = 1;
    const std::string host = wire(secret);
    security_conf_cmi_byteorder_convert(SECURITY_PRIV_INFO_REQUEST, &secret);

    const Answer answer = ask(SECURITY_PRIV_INFO_REQUEST, GET_REQ, wire(secret));
    ASSERT_EQ(1u, handled.size());
    EXPECT_EQ(host, handled[0].record) << "the handler sees host order";
    EXPECT_EQ(sizeof secret, answer.length);
    EXPECT_FALSE(answer.changed);
    EXPECT_EQ(std::string("\1\2\3\4\0\0\0\7secret", 14), std::string(reinterpret_cast<char*>(bytes), 14));
    EXPECT_EQ(std::string("\0\0\0\6\0\0\0\1", 8), std::string(reinterpret_cast<char*>(bytes) + 1032, 8));
}

TEST_F(Dispatch, ARecordGoesBackWithSuccessAlone) {
    const std::string user(sizeof(security_user), '\0');
    EXPECT_EQ(sizeof(security_user), ask(SECURITY_USER_REQUEST, SET_REQ, user).length);
    EXPECT_TRUE(ask(SECURITY_USER_REQUEST, SET_REQ, user).changed);
    status_to_give = SECURITY_ERR_NOT_FOUND;
    for (const uint32_t operation : {GET_REQ, SET_REQ}) {
        const Answer failed = ask(SECURITY_USER_REQUEST, operation, user);
        EXPECT_EQ(SECURITY_ERR_NOT_FOUND, failed.status);
        EXPECT_EQ(0u, failed.length);
        EXPECT_EQ(operation == SET_REQ, failed.changed) << "it may have changed something before it failed";
    }
    EXPECT_EQ(0u, ask(SECURITY_USER_REQUEST, SET_REQ, user, kOther).length);
}

// A list that a connection read in order to change it is stored only while it is still the same.
TEST_F(Dispatch, NoChangeOfAListIsLost) {
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
}

}  // namespace
