#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using UserRecord = LibraryTest;

security_user user(const std::string& name, const std::string& password = "", uint32_t encryption = 0,
                   uint32_t type = 0) {
    security_user made{};
    memcpy(made.user_name, name.data(), name.size());
    made.user_type = type;
    made.encryption_type = encryption;
    memcpy(made.password, password.data(), password.size());
    return made;
}

std::string bytes_of(const security_user& made) {
    return {reinterpret_cast<const char*>(&made), sizeof made};
}

// A stored value.
std::string value(uint32_t type, uint32_t encryption, const std::string& password) {
    std::string bytes = be32(type) + be32(encryption) + password;
    bytes.resize(136);
    return bytes;
}

uint32_t config(uint32_t operation, security_user& record) {
    return security_user_config(kHandle, operation, &record);
}

TEST_F(UserRecord, ClearPasswordsAreStoredAsCipherText) {
    auto record = user("alice", "abc");
    EXPECT_EQ(0u, config(SET_REQ, record));
    EXPECT_EQ((std::map<std::string, std::string>{{name_key(5, "alice"), value(0, 7, "kqn")}}),
              world().store);
    EXPECT_EQ(bytes_of(user("alice", "kqn", 7)), bytes_of(record));

    auto read = user("alice");
    EXPECT_EQ(0u, config(GET_REQ, read));
    EXPECT_EQ(bytes_of(user("alice", "abc")), bytes_of(read));
}

// Bytes behind the terminator of the cipher text are unchanged.
TEST_F(UserRecord, EncodingChangesOnlyThePassword) {
    auto record = user("alice", std::string("abc\0tail", 8));
    EXPECT_EQ(0u, config(SET_REQ, record));
    EXPECT_EQ(std::string("kqn\0tail", 8), std::string(record.password, 8));
}

TEST_F(UserRecord, EncodedPasswordsAreStoredAsGiven) {
    for (const uint32_t encryption : {7u, 1u, 9u}) {
        auto record = user("alice", "xyz", encryption);
        EXPECT_EQ(0u, config(SET_REQ, record));
        EXPECT_EQ(value(0, encryption, "xyz"), world().store[name_key(5, "alice")]);
    }
}

TEST_F(UserRecord, TheLongestPasswordSurvivesTheRoundTrip) {
    std::string longest;
    for (int i = 0; i < 127; ++i) longest += static_cast<char>('A' + i % 50);
    auto record = user("alice", longest);
    ASSERT_EQ(0u, config(SET_REQ, record));
    EXPECT_NE(longest, record.password);
    auto read = user("alice");
    ASSERT_EQ(0u, config(GET_REQ, read));
    EXPECT_EQ(longest, read.password);
}

TEST_F(UserRecord, WalksStayInTheirTable) {
    world().store = {{name_key(5, "amy"), value(0, 7, "kqn")},
                     {name_key(6, "bob"), std::string(2200, 'k')},
                     {name_key(7, "cy"), value(1, 7, "kqn")},
                     {name_key(20, "dan"), be32(0)}};
    const struct {
        uint32_t type;
        std::vector<std::string> names;
    } cases[] = {{0, {"amy"}}, {2, {"amy"}}, {1, {"cy"}}};
    for (const auto& c : cases) {
        std::vector<std::string> visited;
        auto record = user("", "", 0, c.type);
        uint32_t status;
        while ((status = config(GETNEXT_REQ, record)) == 0) {
            visited.push_back(record.user_name);
            EXPECT_STREQ("abc", record.password);
            record.user_type = c.type;
        }
        EXPECT_EQ(0x404a001cu, status);
        EXPECT_EQ(c.names, visited) << c.type;
    }
    auto record = user("cy");
    EXPECT_EQ(0x404a0014u, config(GET_REQ, record));
}

// Stored values that cannot be decoded: a hash, an unknown type, a password without a terminator.
TEST_F(UserRecord, AFailedDecodeLeavesTheTypeBigEndian) {
    const std::string values[] = {value(3, 1, "$1$1f$134cc78c882a1c63"), value(3, 9, "abc"),
                                  value(3, 7, std::string(128, 'x'))};
    for (const auto& stored : values) {
        world().store = {{name_key(5, "amy"), stored}};
        for (const uint32_t operation : {GET_REQ, GETNEXT_REQ}) {
            auto record = user(operation == GET_REQ ? "amy" : "");
            EXPECT_EQ(0x404a0009u, config(operation, record));
            EXPECT_EQ(0x03000000u, record.user_type);
            EXPECT_EQ(static_cast<uint32_t>(stored[7]), record.encryption_type) << "host order";
            EXPECT_EQ("decryption failed for user:amy", world().traces.back());
        }
    }
}

TEST_F(UserRecord, AFailedEncodeStoresAndChangesNothing) {
    auto record = user("amy", std::string(128, 'x'));
    const auto before = record;
    EXPECT_EQ(0x404a0009u, config(SET_REQ, record));
    EXPECT_EQ(bytes_of(before), bytes_of(record));
    EXPECT_EQ("encryption failed for user:amy", world().traces.back());

    record = user(std::string(128, 'n'), "abc");
    EXPECT_EQ(0x404a0104u, config(SET_REQ, record));
    EXPECT_TRUE(world().calls.empty());
}

TEST_F(UserRecord, Traces) {
    auto record = user("amy", "abc");
    config(SET_REQ, record);
    config(GET_REQ, record);
    config(DEL_REQ, record);
    config(GETNEXT_REQ, record);
    const std::vector<std::string> expected = {
        "In security_user_config:", "SET operation for user:amy",    "status for the operation:<[0]>",
        "In security_user_config:", "GET operation for user:amy",    "status for the operation:<[0]>",
        "In security_user_config:", "DELETE operation for user:amy", "status for the operation:<[0]>",
        "In security_user_config:", "GETNEXT for user:amy",          "status for the operation:<[404a001c]>",
    };
    std::erase_if(world().traces,
                  [](const std::string& text) { return text.starts_with("security_pss_move2key"); });
    EXPECT_EQ(expected, world().traces);
}

}  // namespace
