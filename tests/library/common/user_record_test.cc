// Passwords of user records: enciphered where they are stored, deciphered where they are read.

#include "tests/fakes/library_test.h"

namespace {

using UserRecord = LibraryTest;

// A stored value.
std::string value(uint32_t type, uint32_t encryption, const std::string& password) {
    return padded(be32(type) + be32(encryption) + password, 136);
}

uint32_t config(uint32_t operation, security_user& record) {
    return security_user_config(kHandle, operation, &record);
}

TEST_F(UserRecord, ClearPasswordsAreStoredAsCipherText) {
    // Bytes behind the terminator of the cipher text are unchanged.
    const std::string clear("abc\0tail", 8), cipher("kqn\0tail", 8);
    auto record = user("alice", clear);
    EXPECT_EQ(0u, config(SET_REQ, record));
    EXPECT_EQ((std::map<std::string, std::string>{{name_key(5, "alice"), value(0, 7, cipher)}}),
              world().store);
    EXPECT_EQ(bytes_of(user("alice", cipher, 7)), bytes_of(record));
    record = user("alice");
    EXPECT_EQ(0u, config(GET_REQ, record));
    EXPECT_EQ(bytes_of(user("alice", clear)), bytes_of(record));

    for (const uint32_t encryption : {7u, 1u, 9u}) {
        record = user("alice", "xyz", encryption);
        EXPECT_EQ(0u, config(SET_REQ, record));
        EXPECT_EQ(value(0, encryption, "xyz"), world().store[name_key(5, "alice")]) << "encoded already";
    }

    const std::string longest(127, 'x');
    record = user("alice", longest);
    EXPECT_EQ(0u, config(SET_REQ, record));
    EXPECT_NE(longest, record.password);
    record = user("alice");
    EXPECT_EQ(0u, config(GET_REQ, record));
    EXPECT_EQ(longest, record.password);
}

TEST_F(UserRecord, EachTypeHasItsTable) {
    world().store = {{name_key(5, "amy"), value(0, 7, "kqn")},
                     {name_key(6, "bob"), std::string(2200, 'k')},
                     {name_key(7, "cy"), value(1, 7, "kqn")},
                     {name_key(20, "dan"), be32(0)}};
    for (const auto& [type, name] : {std::pair{0u, "amy"}, {2u, "amy"}, {1u, "cy"}}) {
        auto record = user("", "", 0, type);
        EXPECT_EQ(0u, config(GETNEXT_REQ, record));
        EXPECT_STREQ(name, record.user_name);
        EXPECT_STREQ("abc", record.password);
        record.user_type = type;
        EXPECT_EQ(0x404a001cu, config(GETNEXT_REQ, record));
    }
    auto record = user("cy");
    EXPECT_EQ(0x404a0014u, config(GET_REQ, record));
}

// Stored values that cannot be decoded: a hash, an unknown type, a password without a terminator.
TEST_F(UserRecord, AFailedDecodeLeavesTheTypeBigEndian) {
    for (const auto& stored :
         {value(3, 1, "$1$1f$134cc78c882a1c63"), value(3, 9, "abc"), value(3, 7, std::string(128, 'x'))}) {
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
    const auto before = user("amy", std::string(128, 'x'));
    auto record = before;
    EXPECT_EQ(0x404a0009u, config(SET_REQ, record));
    EXPECT_EQ(bytes_of(before), bytes_of(record));
    EXPECT_TRUE(world().calls.empty());
    EXPECT_EQ("encryption failed for user:amy", world().traces.back());
}

}  // namespace
