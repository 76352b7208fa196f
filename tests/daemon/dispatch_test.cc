// What stands between a request and its handler, on routes made up for the purpose.
#include "daemon/dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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

constexpr quill::CountField kSecretCounts[] = {{offsetof(security_priv_info, secret_len), 1024},
                                               {offsetof(security_priv_info, salt_len), 64}};
constexpr quill::TextField kUserTexts[] = {{0, 128}, {offsetof(security_user, password), 128}};

constexpr quill::Route kRoutes[] = {
    {SECURITY_PRIV_INFO_REQUEST,
     sizeof(security_priv_info),
     handle_secret,
     Access::kAdministrators,
     Access::kAdministrators,
     {},
     kSecretCounts},
    {SECURITY_USER_REQUEST, sizeof(security_user), handle_user, Access::kEveryone, Access::kAdministrators,
     kUserTexts},
    {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_rec), handle_line, Access::kEveryone, Access::kEveryone},
    {SECURITY_USER_LOOKUP_REQUEST, sizeof(ssh_key_rec), handle_line, Access::kEveryone, Access::kNobody},
    {SECURITY_SSHKEY_FILE_REQUEST, sizeof(ssh_key_new_rec), handle_file, Access::kEveryone,
     Access::kEveryone},
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
        return quill::dispatch(kRoutes, 42, peer, request);
    }

    uint32_t status_of(uint32_t type, const std::string& given) { return ask(type, SET_REQ, given).status; }

    alignas(16) unsigned char bytes[SECURITY_CMI_MAX_RECORD];
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

}  // namespace
