// Sending a record to the daemon and receiving the reply: what all client functions have in common, with a
// user record.
#include <cerrno>

#include "tests/fakes/library_test.h"

namespace {

using Request = LibraryTest;

security_user sample() {
    security_user user{};
    snprintf(user.user_name, sizeof user.user_name, "alice");
    user.user_type = 1;
    user.encryption_type = 7;
    return user;
}

std::string bytes_of(const security_user& user) {
    return {reinterpret_cast<const char*>(&user), sizeof user};
}

TEST_F(Request, TravelsInWireOrderAndComesBackInHostOrder) {
    security_user answer = sample();
    snprintf(answer.password, sizeof answer.password, "kept");
    answer.user_type = __builtin_bswap32(2);
    for (const uint32_t operation : {GET_REQ, GETNEXT_REQ, SET_REQ, DEL_REQ}) {
        world() = World();
        world().reply.record = bytes_of(answer);
        security_user user = sample();
        EXPECT_EQ(0u, cmi_security_user_config(42, operation, &user));
        ASSERT_EQ(1u, world().requests.size());
        const Sent& sent = world().requests[0];
        EXPECT_EQ(165, sent.type);
        EXPECT_EQ(operation, sent.operation);
        EXPECT_EQ(42u, sent.connection);
        security_user wire = sample();
        wire.user_type = __builtin_bswap32(1);
        wire.encryption_type = __builtin_bswap32(7);
        EXPECT_EQ(bytes_of(wire), sent.record);
        EXPECT_EQ(2u, user.user_type);
        EXPECT_STREQ("kept", user.password);
    }
}

TEST_F(Request, FailureLeavesTheRecordAndPassesTheStatusOn) {
    const security_user before = sample();
    const struct {
        const char* what;
        Reply reply;
        uint32_t want;
    } cases[] = {
        {"a status of the daemon", {.status = 0x404a0014, .record = std::string(264, 'x')}, 0x404a0014},
        {"a status without a record", {.status = 0x404a0014, .missing = true}, 0x404a0014},
        {"undeliverable", {.status = -1, .error = ENOENT}, 0xffffffff},
        {"no record where one is due", {.missing = true, .error = EPROTO}, 0x804a0000 | EPROTO},
        {"a record that is short", {.record = std::string(200, 'x'), .error = EPROTO}, 0x804a0000 | EPROTO},
    };
    for (const auto& c : cases) {
        world().reply = c.reply;
        security_user user = before;
        errno = 0;
        EXPECT_EQ(c.want, cmi_security_user_config(0, GETNEXT_REQ, &user)) << c.what;
        EXPECT_EQ(bytes_of(before), bytes_of(user)) << c.what;
        EXPECT_EQ(c.reply.error, errno) << c.what;
    }
}

}  // namespace
