#include <cerrno>
#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using UserRecordRequest = LibraryTest;

security_user user(const char* name, const char* password, uint32_t encryption, uint32_t type) {
    security_user made{};
    strcpy(made.user_name, name);
    made.user_type = type;
    made.encryption_type = encryption;
    strcpy(made.password, password);
    return made;
}

std::string bytes_of(const security_user& made) {
    return {reinterpret_cast<const char*>(&made), sizeof made};
}

std::string wire(security_user made) {
    security_conf_cmi_byteorder_convert(165, &made);
    return bytes_of(made);
}

TEST_F(UserRecordRequest, CarriesTheRecordBothWays) {
    for (const uint32_t operation : {GET_REQ, GETNEXT_REQ, SET_REQ, DEL_REQ}) {
        world() = World();
        const auto given = user("amy", "abc", 0, 0x01020304);
        const auto answered = user("bob", "kqn", 7, 1);
        world().reply.record = wire(answered);
        auto record = given;
        EXPECT_EQ(0u, cmi_security_user_config(42, operation, &record));
        ASSERT_EQ(1u, world().requests.size());
        const Sent& sent = world().requests[0];
        EXPECT_EQ(165, sent.type);
        EXPECT_EQ(operation, sent.operation);
        EXPECT_EQ(42u, sent.connection);
        EXPECT_EQ(wire(given), sent.record);
        EXPECT_EQ("\x01\x02\x03\x04", sent.record.substr(128, 4));
        EXPECT_EQ(bytes_of(answered), bytes_of(record));
    }
}

// A reply's record is nobody's business when the status is not 0.
TEST_F(UserRecordRequest, FailureLeavesTheRecord) {
    const auto before = user("amy", "abc", 0, 1);
    const std::pair<Reply, uint32_t> cases[] = {
        {{.status = 0x404a0009, .record = wire(user("bob", "$1$1f$134cc78c882a1c63", 1, 0))}, 0x404a0009},
        {{.status = 0x404a001c, .missing = true}, 0x404a001c},
        {{.status = -1, .error = ECONNREFUSED}, 0xffffffff},
    };
    for (const auto& [reply, want] : cases) {
        world().reply = reply;
        auto record = before;
        EXPECT_EQ(want, cmi_security_user_config(0, GETNEXT_REQ, &record));
        EXPECT_EQ(bytes_of(before), bytes_of(record)) << want;
    }
}

}  // namespace
