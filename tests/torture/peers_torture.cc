// Permissions of all kinds of peers for all kinds of requests, and racing connections. Needs the sandbox, since
// permitted requests take effect.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "quillplatform/shell.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"
#include "tests/support/scale.h"
#include "tests/torture/fault.h"

namespace {

constexpr gid_t kNogroup = 65534;
constexpr uint32_t kForbidden = 4242, kAllowed = 4243;  // codes of services

enum Who { kNobody, kAdministrators, kAll };

// Not the daemon's own table, which this one verifies.
const struct Kind {
    uint32_t type, size;
    Who reads, writes;
} kKinds[] = {
    {SECURITY_PASSWD_REQUEST, 8452, kAdministrators, kAdministrators},
    {SECURITY_USER_MANAGE_REQUEST, 16960, kAdministrators, kAdministrators},
    {SECURITY_ROLE_ASSIGN_REQUEST, 4292, kAll, kAdministrators},
    {SECURITY_ENABLE_INFO_REQUEST, 8, kAll, kAdministrators},
    {SECURITY_USER_REQUEST, 264, kAdministrators, kAdministrators},
    {SECURITY_SSHKEY_FILE_REQUEST, 2328, kAdministrators, kAdministrators},
    {SECURITY_SSHKEY_FILE_REQUEST, 8321, kAdministrators, kAdministrators},
    {SECURITY_BANNER_REQUEST, 1, kAll, kAdministrators},
    {SECURITY_RESULT_REQUEST, sizeof(security_self_test_results), kAll, kAdministrators},
    {SECURITY_ROLES_REQUEST, 4292, kAll, kAdministrators},
    {SECURITY_USER_LOOKUP_REQUEST, 2328, kAll, kNobody},
    {SECURITY_USER_LOOKUP_REQUEST, 8321, kAll, kNobody},
    {SECURITY_SSHKEY_REQUEST, 5720, kAdministrators, kAdministrators},
    {SECURITY_SSHKEY_TRANSFER_REQUEST, 5720, kAdministrators, kAdministrators},
    {SECURITY_PRIV_INFO_REQUEST, 1108, kAdministrators, kAdministrators},
    {SECURITY_LOCALE_ASSIGN_REQUEST, 4292, kAll, kAdministrators},
    {SECURITY_NGINX_PORT_REQUEST, 12, kAll, kAdministrators},
    {SECURITY_NGINX_CERT_REQUEST, 2108, kAdministrators, kAdministrators},
    {SECURITY_ORPHANS_REQUEST, sizeof(security_orphans), kAdministrators, kAdministrators},
};
const uint32_t kOperations[] = {0, GET_REQ, GETNEXT_REQ, SET_REQ, DEL_REQ, 5, 0xffffffff};

class Peers : public testing::Test {
 protected:
    Peers() {
        setenv("QUILL_FAULTS", (box / "faults").c_str(), 1);
        fault = map_fault(box / "faults");
        setenv("LD_PRELOAD", FAULTS_LIBRARY, 1);
        daemon = std::make_unique<Daemon>(std::vector<std::string>{"--admin-group", "adm"});
        unsetenv("LD_PRELOAD");
        EXPECT_TRUE(daemon->ready()) << daemon->log();
    }
    void SetUp() override {
        if (getenv("QUILL_IN_SANDBOX") == nullptr || getenv("QUILL_SANDBOX_SINGLE_USER") != nullptr)
            GTEST_SKIP() << "for root in the sandbox";
    }

    // Sends all kinds of requests from this process, and checks that those permitted to `who` are processed
    // and all others refused.
    static void ask_everything(Who who, const std::string& name) {
        const std::string refused = reply_frame(SECURITY_ERR_NOT_PERMITTED, "");
        RawClient client;
        for (const Kind& kind : kKinds) {
            for (const uint32_t operation : kOperations) {
                const bool reads = operation == GET_REQ || operation == GETNEXT_REQ;
                const Who needed = reads ? kind.reads : kind.writes;
                const bool permitted =
                    who != kNobody && (needed == kAll || (needed == kAdministrators && who == needed));
                // A forbidden request is one that would have an effect.
                std::string record = permitted ? "" : "abc";
                record.resize(kind.size);
                const std::string reply = client.ask(request_frame(kind.type, operation, record, 0, "root"));
                EXPECT_EQ(permitted, reply != refused && !reply.empty())
                    << name << ", type " << kind.type << ", size " << kind.size << ", operation "
                    << operation;
            }
        }
    }

    Box box;
    Fault* fault;
    std::unique_ptr<Daemon> daemon;
    const gid_t adm = getgrnam("adm")->gr_gid;
};

TEST_F(Peers, OnlyPermittedRequestsAreServed) {
    const struct {
        const char* name;
        uid_t user;
        gid_t group;
        std::vector<gid_t> groups;
        bool known;
        Who who;
    } cases[] = {
        {"nobody", 65534, kNogroup, {}, true, kAll},
        {"a user in other groups", 1000, 100, {0, 1, 2, 3, adm + 1, 65534}, true, kAll},
        {"root without credentials", 0, 0, {adm}, false, kNobody},
        {"an administrator", 65534, kNogroup, {1, adm, 2000}, true, kAdministrators},
        {"root without groups", 0, kNogroup, {}, true, kAdministrators},
    };
    const auto before = files_in(box.state());
    for (const auto& c : cases) {
        fault->hide_peers = !c.known;
        const int ended = in_child([&] {
            become_nobody(c.group, c.groups, c.user);
            ask_everything(c.who, c.name);
        });
        EXPECT_EQ(0, ended) << c.name;
        EXPECT_TRUE(c.who == kAdministrators || before == files_in(box.state())) << c.name;
    }
    report_figures(std::to_string(std::size(cases) * std::size(kKinds) * std::size(kOperations)) +
                   " kinds of requests from " + std::to_string(std::size(cases)) +
                   " peers, each as permitted");
}

TEST_F(Peers, RacingConnectionsAreNotMixed) {
    const unsigned count = scale("QUILL_CONNECTIONS", 10000, 100000) / 4;
    std::vector<pid_t> racers;
    for (int i = 0; i < 3; ++i)
        racers.push_back(start_child([&] {
            become_nobody();
            for (unsigned n = 0; n < count; ++n) {
                RawClient client;  // closed at once, so that the daemon reuses its descriptor
                client.send(service_frame(SET_REQ, kForbidden, n), MSG_DONTWAIT);
            }
        }));
    racers.push_back(start_child([&] {
        for (unsigned n = 0; n < count; ++n)
            EXPECT_EQ(reply_frame(0, word(kAllowed) + word(n)),
                      RawClient().ask(service_frame(SET_REQ, kAllowed, n)));
    }));
    for (const pid_t racer : racers) EXPECT_EQ(0, wait_for(racer));
    EXPECT_EQ(reply_frame(SECURITY_ERR_NO_VALUE, ""), RawClient().ask(service_frame(GET_REQ, kForbidden, 0)));
    EXPECT_EQ(reply_frame(0, word(kAllowed) + word(count - 1)),
              RawClient().ask(service_frame(GET_REQ, kAllowed, 0)));
    report_figures(std::to_string(4 * count) + " connections that raced, none mistaken for another");
}

}  // namespace
