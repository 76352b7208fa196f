// The one road of a record to the daemon and back.
#include "common/request.h"

#include <cerrno>

#include "tests/fakes/library_test.h"

namespace {

using quill::request;
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
    world().reply.record = bytes_of(answer);

    security_user user = sample();
    EXPECT_EQ(0u, request(SECURITY_USER_REQUEST, GET_REQ, user, 42));
    ASSERT_EQ(1u, world().requests.size());
    const Sent& sent = world().requests[0];
    EXPECT_EQ(165, sent.type);
    EXPECT_EQ(1u, sent.operation);
    EXPECT_EQ(42u, sent.connection);
    EXPECT_EQ(264u, sent.record.size());
    EXPECT_EQ(be32(1) + be32(7), sent.record.substr(128, 8));
    EXPECT_EQ(2u, user.user_type);
    EXPECT_STREQ("kept", user.password);
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
        EXPECT_EQ(c.want, request(SECURITY_USER_REQUEST, GET_REQ, user, 0)) << c.what;
        EXPECT_EQ(bytes_of(before), bytes_of(user)) << c.what;
        EXPECT_EQ(c.reply.error, errno) << c.what;
    }
}

}  // namespace
