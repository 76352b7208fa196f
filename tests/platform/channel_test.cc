// The client's end of the request channel, with a scripted peer and with the daemon's server.
#include <gtest/gtest.h>
#include <link.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include "quillsecurity/records.h"
#include "quillsecurity/status.h"
#include "tests/platform/channel_test.h"

namespace {

void reply(int connection, const std::string& frame) {
    send(connection, frame.data(), frame.size(), MSG_NOSIGNAL);
}

TEST_F(Channel, TheBytesOfARequest) {
    std::vector<std::string> seen;
    {
        ScriptedServer server([&](int connection) {
            for (std::string got; !(got = receive_message(connection)).empty();
                 reply(connection, reply_frame(0, "r")))
                seen.push_back(got);
        });
        security_cmi_session_id = 0x01020304;
        ask(161, std::string("\0\xff record", 9), 3);
        const std::string name(300, 'n');
        security_cmi_username = name.c_str();
        ask(283649, "", 4);
        security_cmi_username = "admin";
        uint32_t length = 2;
        char record[] = "ab";
        EXPECT_EQ(0, security_cmi2(-1, 2, record, nullptr, &length, 9));
        EXPECT_EQ(0u, length);
        security_cmi_username = nullptr;
        security_cmi_session_id = 0;
    }
    ASSERT_EQ(3u, seen.size());
    EXPECT_EQ(std::string("QSEC\0\0\0\2\0\0\0\xa1\0\0\0\3\1\2\3\4\0\0\0\1\0\0\0\x9", 28) +
                  std::string(128, '\0') + std::string("\0\xff record", 9),
              seen[0]);
    EXPECT_EQ(request_frame(283649, 4, "", 0x01020304, std::string(127, 'n')), seen[1]);
    EXPECT_EQ(request_frame(0xffffffff, 2, "ab", 0x01020304, "admin"), seen[2]);
}

TEST_F(Channel, RepliesOfAllKinds) {
    std::string next;
    ScriptedServer server([&](int connection) {
        // A copy, since the client continues before the sending call returns.
        while (!receive_message(connection).empty()) reply(connection, std::string(next));
    });
    const std::string good = reply_frame(0, "record");
    const std::string largest = reply_frame(0, std::string(SECURITY_CMI_MAX_RECORD, 'x'));
    const auto changed = [&good](size_t at, const std::string& bytes) {
        return std::string(good).replace(at, bytes.size(), bytes);
    };
    const struct {
        const char* what;
        std::string frame;
        int32_t status;
        int error;
        std::string record;
    } cases[] = {
        {"success", good, 0, 0, "record"},
        {"a status with a record", reply_frame(0x404a0014, "reason"), 0x404a0014, 0, "reason"},
        {"no record", reply_frame(0, ""), 0, 0, "(null)"},
        {"a byte short of the request", reply_frame(0, "recor"), 0, 0, "(null)"},
        {"the largest", largest, 0, 0, largest.substr(16)},
        {"one byte more", reply_frame(0, std::string(SECURITY_CMI_MAX_RECORD + 1, 'x')), -1, EPROTO,
         "(null)"},
        {"a wrong length", changed(12, word(7)), -1, EPROTO, "(null)"},
        {"the largest and more", largest + "x", -1, EPROTO, "(null)"},
        {"half a header", good.substr(0, 15), -1, EPROTO, "(null)"},
        {"an invalid status", reply_frame(0x804a0001, "x"), -1, EPROTO, "(null)"},
        {"success after all that", good, 0, 0, "record"},
    };
    for (const auto& c : cases) {
        next = c.frame;
        const Outcome got = ask(kEcho);
        EXPECT_EQ(c.status, got.status) << c.what;
        EXPECT_EQ(c.error, got.error) << c.what;
        EXPECT_TRUE(c.record == got.record) << c.what;
    }
}

TEST_F(Channel, NoDaemon) {
    EXPECT_EQ(ENOENT, ask(kEcho).error) << "no folder";
    mkdir(box.run().c_str(), 0755);
    EXPECT_EQ(ENOENT, ask(kEcho).error) << "no socket";
    close(bound_socket(SOCK_SEQPACKET, socket_path()));
    EXPECT_EQ(ECONNREFUSED, ask(kEcho).error) << "of a daemon that has ended";
    setenv("QUILL_RUNTIME_DIR", (box / std::string(120, 'p')).c_str(), 1);
    EXPECT_EQ(ENAMETOOLONG, ask(kEcho).error);
    setenv("QUILL_RUNTIME_DIR", "run", 1);
    EXPECT_EQ(EINVAL, ask(kEcho).error) << "relative";
    if (geteuid() != 0) GTEST_SKIP() << "only root can change its user";
    setenv("QUILL_RUNTIME_DIR", box.run().c_str(), 1);
    ServerProcess server(answer);
    chmod(socket_path().c_str(), 0600);
    EXPECT_EQ(0, in_child([] {
                  become_nobody();
                  EXPECT_EQ(EACCES, ask(kEcho).error);
              }));
}

// Signals neither extend nor end the wait.
TEST_F(Channel, ALateReplyIsNotTakenForTheNext) {
    ServerProcess server(answer);
    EXPECT_EQ(0, in_child([] {
                  struct sigaction action {};
                  action.sa_handler = [](int) {};
                  sigaction(SIGALRM, &action, nullptr);
                  const itimerval often{{0, 30000}, {0, 30000}};
                  setitimer(ITIMER_REAL, &often, nullptr);
                  const Outcome late = ask(kSlow, "1400");
                  EXPECT_EQ(ETIMEDOUT, late.error);
                  EXPECT_LE(1.0, late.seconds);
                  EXPECT_EQ("next", ask(kEcho, "next").record);
                  security_cmi_timeout = 5;
                  EXPECT_EQ("late", ask(kSlow, "300").record);
              }));
}

// The limit includes the wait for a place in the daemon's queue, which may not come.
TEST_F(Channel, TheDeadlineHoldsForAllStagesTogether) {
    for (const double first : {0.6, 1.6}) {
        double pause = first;
        ScriptedServer server([&](int) { sleep_for(std::exchange(pause, 0.9)); }, 0);
        RawClient served, queued;
        const Outcome late = ask(kEcho);
        EXPECT_EQ(ETIMEDOUT, late.error);
        EXPECT_LE(1.0, late.seconds);
        EXPECT_GT(1.4, late.seconds);
    }
}

TEST_F(Channel, LimitsAtTheirEnds) {
    ServerProcess server(answer);
    EXPECT_EQ(EMSGSIZE, ask(kEcho, std::string(SECURITY_CMI_MAX_RECORD + 1, 'x')).error);
    EXPECT_EQ("1", ask(kCount, "").record) << "the server did not receive it";
    for (const uint32_t limit : {0u, 0x7fffffffu, 0xffffffffu}) {
        security_cmi_timeout = limit;
        EXPECT_EQ("late", ask(kSlow, "300").record) << limit;
    }
}

// Neither in the library's static buffers nor, which kCount checks, in the server's.
TEST_F(Channel, NoRecordStaysInMemory) {
    ServerProcess server(answer);
    static std::string secret;
    secret = "planted by " + std::to_string(getpid());
    EXPECT_EQ(secret, ask(kEcho, secret).record);
    int libraries = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* count) {
            if (strstr(info->dlpi_name, "libquillplatform.so") == nullptr) return 0;
            ++*static_cast<int*>(count);
            for (const auto* header = info->dlpi_phdr; header != info->dlpi_phdr + info->dlpi_phnum; ++header)
                if (header->p_type == PT_LOAD && (header->p_flags & PF_W) != 0) {
                    std::string bytes(header->p_memsz, '\0');
                    const iovec to{bytes.data(), bytes.size()};
                    const iovec from{reinterpret_cast<void*>(info->dlpi_addr + header->p_vaddr),
                                     bytes.size()};
                    // By the kernel: a sanitizer keeps the program from reading between variables.
                    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                              process_vm_readv(getpid(), &to, 1, &from, 1, 0));
                    EXPECT_EQ(std::string::npos, bytes.find(secret));
                }
            return 0;
        },
        &libraries);
    EXPECT_EQ(1, libraries);
    EXPECT_EQ("2", ask(kCount, "").record);
}

TEST_F(Channel, ARequestIsSentAgainUnlessItWasDelivered) {
    for (const int signal : {SIGTERM, SIGKILL}) {
        ServerProcess server(answer);
        EXPECT_EQ("1", ask(kCount, "").record) << "over a new connection";
        EXPECT_EQ("2", ask(kCount, "").record);
        server.end(signal);
    }
    EXPECT_EQ(ECONNREFUSED, ask(kEcho).error) << "the last one left its socket";
    {
        ServerProcess server(answer);
        EXPECT_EQ(ECONNRESET, ask(kDie).error);
        EXPECT_EQ(0, server.join());
    }
    const ServerProcess server(answer);
    EXPECT_EQ("1", ask(kCount, "").record) << "nothing was sent before it";
}

TEST_F(Channel, AForkedChildHasItsOwnConnection) {
    ServerProcess server(answer);
    ask(kEcho);
    const auto converse = [](const std::string& who) {
        for (unsigned i = 0; i < 500; ++i) {
            const std::string record = who + std::to_string(i);
            ASSERT_EQ(record, ask(kEcho, record).record);
        }
    };
    const pid_t child = start_child([&] { converse("child "); });
    converse("parent ");
    EXPECT_EQ(0, wait_for(child));
    EXPECT_EQ("after", ask(kEcho, "after").record);
}

// The daemon compares a list that is stored with what the same connection has read before.
TEST_F(Channel, AListThatWasReadOnALostConnectionIsNotStored) {
    constexpr int32_t kRoles = SECURITY_ROLE_ASSIGN_REQUEST, kRolesToRead = SECURITY_ROLES_REQUEST,
                      kLocales = SECURITY_LOCALE_ASSIGN_REQUEST;
    const auto send = [](int32_t type, const std::string& user, uint32_t operation) {
        const Outcome outcome = ask(type, user + std::string(4292 - user.size(), '\0'), operation);
        return outcome.status < 0 ? outcome.error : outcome.status;
    };
    const auto get = [&](int32_t type, const std::string& user) { return send(type, user, GET_REQ); };
    const auto set = [&](int32_t type, const std::string& user) { return send(type, user, SET_REQ); };
    auto server = std::make_unique<ServerProcess>(answer);
    const auto restart = [&] {
        server.reset();
        server = std::make_unique<ServerProcess>(answer);
    };
    EXPECT_EQ(0, get(kRoles, "amy") | get(kLocales, "bob") | get(kRolesToRead, "cid"));
    EXPECT_EQ(0, set(kRoles, "amy") | set(kLocales, "bob") | set(kRolesToRead, "cid"));
    EXPECT_EQ(0, in_child([&] { EXPECT_EQ(ESTALE, set(kRoles, "amy")) << "a connection of its own"; }));
    EXPECT_EQ(0, set(kRoles, "amy"));
    restart();
    const struct {
        const char* what;
        int32_t type;
        const char* user;
        int want;
    } cases[] = {
        {"read before", kRoles, "amy", ESTALE},
        {"by another type about the same list", kRolesToRead, "amy", ESTALE},
        {"another list", kLocales, "amy", 0},
        {"again, on the new connection", kRoles, "amy", ESTALE},
        {"locales, read before", kLocales, "bob", ESTALE},
        {"never read", kRoles, "bob", 0},
        {"read for another purpose", kRoles, "cid", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.want, set(c.type, c.user)) << c.what;
    EXPECT_EQ(0, send(kRoles, "amy", DEL_REQ)) << "a deletion needs no list";
    EXPECT_EQ(0, get(kRoles, "amy") | set(kRoles, "amy")) << "read again";

    for (int user = 0; user <= 1024; ++user) get(kRoles, std::to_string(user));
    restart();
    for (const char* user : {"0", "1024", "amy"}) EXPECT_EQ(ESTALE, set(kRoles, user)) << user;
    EXPECT_EQ(0, get(kRoles, "0") | set(kRoles, "0"));
}

}  // namespace
