// What the daemon tells and asks over the message transport: changes of users, and its self-tests.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/announce.h"
#include "daemon/self_test.h"
#include "platform/channel/server.h"
#include "platform/mts/broadcast.h"
#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/fakes/log.h"

namespace {

bool sha1_is_broken = false;

}  // namespace

const EVP_MD* EVP_sha1() { return EVP_get_digestbyname(sha1_is_broken ? "SHA256" : "SHA1"); }

namespace {

int32_t parse(void* context, uint32_t, uint32_t opcode, const void* payload, uint32_t length) {
    EXPECT_EQ(173u, opcode);
    EXPECT_EQ(0u, tlvu_security_notification_to_struct(payload, length, &context, TLVU_MODE_FILL));
    return 0;
}

TEST(Announcements, CarryTheRolesInUse) {
    security_notification got;
    security_user_roles roles;
    memset(&roles, 'x', sizeof roles);
    roles.num_roles = 0;
    quill::announce_user_change(1, "nobody listens", roles);
    const uint32_t handle = quill_mts_attach(parse, &got);
    quill::announce_on(handle);
    uint32_t number = 0;
    for (const auto& [given, carried] : {std::pair{0, 0u}, {2, 2u}, {64, 64u}, {65, 64u}, {-1, 0u}}) {
        roles.num_roles = given;
        quill::announce_user_change(5, "amy", roles);
        EXPECT_EQ(5u, got.type);
        EXPECT_EQ(++number, got.number);
        EXPECT_STREQ("amy", got.user_name);
        EXPECT_EQ(carried, got.role_set.count);
        const std::string names(got.role_set.roles[0], sizeof got.role_set.roles);
        EXPECT_EQ(std::string(65 * carried, 'x') + std::string(65 * (64 - carried), '\0'), names) << given;
    }
    EXPECT_EQ("85 Password changed for user amy", log_lines().back());
    quill_mts_close(handle);
    quill::announce_user_change(5, "amy", roles);
    EXPECT_EQ("3 a change of user amy could not be announced: error 9", log_lines().back());
    quill::announce_on(0);
    log_lines().clear();
}

security_self_test_results results(uint32_t operation) {
    security_self_test_results record{};
    EXPECT_EQ(0u, quill::self_test_results(0, operation, &record));
    return record;
}

TEST(SelfTests, AreRunOnRequestAndToldApart) {
    quill::Server server({});
    quill::Broadcast broadcast(server.loop(), 0, 1);
    security_self_test_results record;
    EXPECT_EQ(SECURITY_ERR_MISSING_ARGUMENT, quill::self_test_results(0, SET_REQ, &record));
    quill::serve_self_tests(broadcast);
    EXPECT_EQ(0u, results(GET_REQ).num_entries);
    for (const uint32_t broken : {0u, 1u}) {
        sha1_is_broken = broken != 0;
        record = results(SET_REQ);
        EXPECT_EQ(broken, record.outcome);
        EXPECT_EQ(broken, record.failed);
        ASSERT_EQ(7u, record.num_entries);
        for (uint32_t i = 0; i < 7; ++i) {
            EXPECT_EQ(i + 1, record.entries[i].test);
            EXPECT_EQ(i == 0 ? 1 - broken : 1, record.entries[i].passed) << i;
        }
    }
    EXPECT_EQ((std::vector<std::string>{"6 7 self-tests run, 0 failed", "2 self-test sha-1 failed",
                                        "2 7 self-tests run, 1 failed"}),
              log_lines());

    // Requests and answers that are none change nothing.
    log_lines().clear();
    const std::pair<uint32_t, std::string> cases[] = {{55, ""},
                                                      {55, std::string("\1\0\1\0", 4)},
                                                      {55, std::string("\2\0\1\0\1\0\0\0", 8)},
                                                      {55, std::string("\1\0\2\0\1\0\0\0", 8)},
                                                      {55, std::string("\1\0\1\0\1\0\0\0x", 9)},
                                                      {56, "short"}};
    for (const auto& [sap, payload] : cases)
        EXPECT_EQ(0, mts_send(broadcast.handle(), MTS_THIS_NODE, sap, 2213, payload.data(),
                              static_cast<uint32_t>(payload.size()), 0, 0, 0));
    EXPECT_EQ(std::vector<std::string>{"3 the response of the self-test service cannot be read"},
              log_lines());
    const auto kept = results(GET_REQ);
    EXPECT_EQ(0, memcmp(&record, &kept, sizeof record));
    EXPECT_EQ(0u, results(DEL_REQ).num_entries);
}

}  // namespace
