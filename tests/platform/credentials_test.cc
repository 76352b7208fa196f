// How the server identifies its clients.
#undef _FORTIFY_SOURCE
#include <gtest/gtest.h>

#include <cerrno>

#include "quillplatform/shell.h"
#include "tests/platform/server_process.h"
#include "tests/support/interpose.h"

namespace {

int failing_option = -1;  // getsockopt() fails for it

}  // namespace

INTERPOSED int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept {
    if (level != SOL_SOCKET || option != failing_option)
        return original<decltype(getsockopt)>("getsockopt")(socket, level, option, value, size);
    errno = EIO;
    return -1;
}

namespace {

constexpr gid_t kAdministrators = 4242;

class Credentials : public testing::Test {
 protected:
    Credentials() { security_cmi_timeout = 5; }
    ~Credentials() override { failing_option = -1; }

    // Returns how the server identifies this process.
    static std::string who() {
        const std::string reply = RawClient().ask(request_frame(1, 1, ""));
        return reply.size() > 16 ? reply.substr(16) : "no reply";
    }

    static quill::Answer describe(const quill::Peer& peer, quill::Request& request) {
        if (!peer.known)
            return answer_text(request, peer.administrator ? "unknown administrator" : "unknown");
        return answer_text(request, (peer.administrator ? "administrator " : "other ") +
                                        std::to_string(peer.uid) +
                                        (peer.pid > 0 ? "" : " without a process"));
    }

    Box box;
};

TEST_F(Credentials, AnUnknownPeerIsNoAdministrator) {
    failing_option = SO_PEERCRED;
    ServerProcess server(describe, kAdministrators);
    EXPECT_EQ("unknown", who());
}

TEST_F(Credentials, RootAndMembersOfTheGroupAreAdministrators) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can change its user";
    std::vector<gid_t> many;
    for (gid_t group = 4200; group < 4243; ++group) many.push_back(group);
    const struct {
        const char* what;
        gid_t administrators, group;
        std::vector<gid_t> others;
        int failing;
        const char* want;
    } cases[] = {
        {"another user", kAdministrators, 65534, {}, -1, "other 65534"},
        {"a member of other groups", kAdministrators, 65534, {4, 4241, 4243}, -1, "other 65534"},
        {"a member", kAdministrators, 65534, {4, 4242}, -1, "administrator 65534"},
        {"a member of very many groups", kAdministrators, 65534, many, -1, "administrator 65534"},
        {"by the primary group", kAdministrators, 4242, {}, -1, "administrator 65534"},
        {"a member whose groups cannot be read",
         kAdministrators,
         65534,
         {4242},
         SO_PEERGROUPS,
         "other 65534"},
        {"a member of root's group, where there is no other", 0, 65534, {0}, -1, "other 65534"},
        {"by the primary group, where there is no other", 0, 0, {0}, -1, "other 65534"},
    };
    for (const auto& c : cases) {
        failing_option = c.failing;
        ServerProcess server(describe, c.administrators);
        EXPECT_EQ("administrator 0", who()) << c.what;
        const int ended = in_child([&] {
            become_nobody(c.group, c.others);
            EXPECT_EQ(c.want, who()) << c.what;
        });
        EXPECT_EQ(0, ended);
    }
}

}  // namespace
