// The request channel: the client's end against a scripted peer and the real server, and the server's end
// against raw clients.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include "quillplatform/shell.h"
#include "quillsecurity/records.h"
#include "quillsecurity/status.h"
#include "tests/platform/server_process.h"

namespace {

using quill::Answer;
using quill::Peer;
using quill::Request;

struct Outcome {
    int32_t status;
    int error;
    std::string record;
    double seconds;
};

Outcome ask(int32_t type, const std::string& record = "record", uint32_t operation = 1) {
    std::string request = record;
    auto length = static_cast<uint32_t>(request.size());
    auto* reply = reinterpret_cast<void*>(1);
    const double start = seconds_now();
    errno = 0;
    const int32_t status = security_cmi(type, operation, request.data(), &reply, &length, 1);
    const int error = errno;
    const std::string bytes = reply == nullptr ? "(null)" : std::string(static_cast<char*>(reply), length);
    EXPECT_EQ(reply == nullptr, length == 0);
    EXPECT_TRUE(status >= 0 || reply == nullptr) << "nothing comes with a failure";
    free(reply);
    return {status, status < 0 ? error : 0, bytes, seconds_now() - start};
}

enum : uint32_t { kEcho = 1, kSlow /* milliseconds as a text */, kDie, kCount };

// A handler for each of these types.
Answer answer(const Peer&, Request& request) {
    static int requests = 0;
    ++requests;
    switch (request.type) {
    case kSlow:
        sleep_for(std::stoi(std::string(reinterpret_cast<char*>(request.record), request.length)) / 1000.0);
        return answer_text(request, "late");
    case kDie:
        _exit(0);
    case kCount:
        return answer_text(request, std::to_string(requests));
    default:
        return {0, request.length, false};
    }
}

class Channel : public testing::Test {
 protected:
    Channel() { security_cmi_timeout = 1; }

    std::string socket_path() const { return box.run() + "/quillsecurityd.sock"; }

    Box box;
};

void reply(int connection, const std::string& frame) {
    send(connection, frame.data(), frame.size(), MSG_NOSIGNAL);
}

// ---- The client

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

TEST_F(Channel, TooLongARequestIsNotSent) {
    ServerProcess server(answer);
    EXPECT_EQ(EMSGSIZE, ask(kEcho, std::string(SECURITY_CMI_MAX_RECORD + 1, 'x')).error);
    EXPECT_EQ("1", ask(kCount, "").record) << "the server received nothing";
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

// The limit includes the wait for a place in the daemon's queue.
TEST_F(Channel, TheDeadlineHoldsForAllStagesTogether) {
    double pause = 0.6;
    ScriptedServer server([&](int) { sleep_for(std::exchange(pause, 0.9)); }, 0);
    RawClient served, queued;
    const Outcome late = ask(kEcho);
    EXPECT_EQ(ETIMEDOUT, late.error);
    EXPECT_LE(1.0, late.seconds);
    EXPECT_GT(1.4, late.seconds);
}

TEST_F(Channel, LimitsAtTheirEnds) {
    ServerProcess server(answer);
    for (const uint32_t limit : {0u, 0x7fffffffu, 0xffffffffu}) {
        security_cmi_timeout = limit;
        EXPECT_EQ("late", ask(kSlow, "50").record) << limit;
    }
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

// ---- The server

TEST_F(Channel, MalformedFramesAreRefusedAndTheConnectionStaysOpen) {
    ServerProcess server(answer);
    RawClient client;
    const std::string good = request_frame(kEcho, 1, "record");
    const std::string refused = reply_frame(SECURITY_ERR_REQUEST_FRAME, "");
    const auto changed = [&good](size_t at, const std::string& bytes) {
        return std::string(good).replace(at, bytes.size(), bytes);
    };
    const std::pair<const char*, std::string> cases[] = {
        {"one byte", "Q"},
        {"half a header", good.substr(0, 100)},
        {"a header less one byte", good.substr(0, 155)},
        {"wrong magic", changed(0, "QSED")},
        {"another version", changed(4, word(1))},
        {"length one short", changed(24, word(5))},
        {"length one over", changed(24, word(7))},
        {"length beyond all", changed(24, word(0xffffffff))},
        {"the largest and more", request_frame(kEcho, 1, std::string(SECURITY_CMI_MAX_RECORD, 'x')) + "x"},
        {"user name without an end", changed(28, std::string(128, 'n'))},
        {"one byte too long", request_frame(kEcho, 1, std::string(SECURITY_CMI_MAX_RECORD + 1, 'x'))},
        {"far too long", request_frame(kEcho, 1, std::string(60000, 'x'))},
    };
    for (const auto& [what, frame] : cases) {
        EXPECT_EQ(refused, client.ask(frame)) << what;
        EXPECT_EQ(reply_frame(0, "record"), client.ask(good)) << "after " << what;
    }
    const std::string largest(SECURITY_CMI_MAX_RECORD, 'x');
    EXPECT_TRUE(reply_frame(0, largest) == client.ask(request_frame(kEcho, 1, largest)));
    EXPECT_EQ(reply_frame(0, ""), client.ask(request_frame(kEcho, 1, "")));
    EXPECT_EQ("15", client.ask(request_frame(kCount, 1, "")).substr(16)) << "no handler was called";
}

// A process that changes its context connects to that context's daemon. A daemon of another context, which it
// reaches here over a link, refuses the request.
TEST_F(Channel, ContextsAreKeptApart) {
    ServerProcess server(answer);
    EXPECT_EQ("1", ask(kCount, "").record);
    setenv("SYSMGR_VDC_ID", "2", 1);
    EXPECT_EQ(ENOENT, ask(kCount, "").error);
    ASSERT_EQ(0, symlink(".", (box.run() + "/vdc_2").c_str()));
    EXPECT_EQ(static_cast<int32_t>(SECURITY_ERR_CONTEXT), ask(kCount, "").status);
    unsetenv("SYSMGR_VDC_ID");
    const std::string other = request_frame(kCount, 1, "", 0, "", 2);
    EXPECT_EQ(reply_frame(SECURITY_ERR_CONTEXT, ""), RawClient().ask(other));
    EXPECT_EQ(reply_frame(SECURITY_ERR_CONTEXT, ""),
              RawClient().ask(std::string(other).replace(28, 128, 128, 'n')));
    EXPECT_EQ("2", ask(kCount, "").record) << "no handler was called";
}

// Idle clients, one that reads no replies, one that sends a truncated request, and some that disconnect at once.
TEST_F(Channel, NobodyIsDelayedByTheOthers) {
    ServerProcess server(answer);
    std::vector<RawClient> idle(99);
    RawClient stalled, truncated;
    const std::string request = request_frame(kEcho, 1, std::string(10000, 'x'));
    for (int i = 0; i < 10000 && stalled.send(request, MSG_DONTWAIT); ++i) continue;
    truncated.send(request.substr(0, 100));
    EXPECT_EQ("here", ask(kEcho, "here").record);
    for (int i = 0; i < 2000; ++i)
        ASSERT_TRUE(RawClient().send(request_frame(kEcho, 1, "dies without waiting"))) << i;
    const Outcome got = ask(kEcho, "here");
    EXPECT_EQ("here", got.record);
    EXPECT_LT(got.seconds, 0.5);
    EXPECT_EQ(reply_frame(0, "idle"), idle[50].ask(request_frame(kEcho, 1, "idle")));
}

TEST_F(Channel, NobodyTakesAllPlaces) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can change its user";
    for (const auto& [files, places] : {std::pair{1300, 100}, {174, 10}}) {
        rlimit usual;
        getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit limit{static_cast<rlim_t>(files), usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        ServerProcess server(answer);
        setrlimit(RLIMIT_NOFILE, &usual);
        ASSERT_EQ(0, seteuid(65534));
        {
            std::vector<RawClient> held(static_cast<size_t>(places));
            EXPECT_EQ(reply_frame(0, "last"), held.back().ask(request_frame(kEcho, 1, "last")));
            // Whether the request is sent before the daemon closes or after.
            for (int i = 0; i < 100; ++i)
                ASSERT_EQ(static_cast<int32_t>(SECURITY_ERR_BUSY), ask(kEcho).status) << i;
            ASSERT_EQ(0, seteuid(0));
            EXPECT_EQ("root", ask(kEcho, "root").record);
            EXPECT_EQ(reply_frame(0, "held"), held[0].ask(request_frame(kEcho, 1, "held")));
        }
    }
}

TEST_F(Channel, ANewServerReplacesTheSocket) {
    const mode_t mask = umask(077);
    ServerProcess first(answer);
    ask(kCount, "");
    ServerProcess second(answer);
    EXPECT_EQ("0666", mode_of(socket_path()));
    umask(mask);
    EXPECT_EQ("2", ask(kCount, "").record) << "an existing connection";
    EXPECT_EQ("1", RawClient().ask(request_frame(kCount, 1, "")).substr(16));
    EXPECT_EQ(0, first.end(SIGTERM));
    EXPECT_EQ("2", RawClient().ask(request_frame(kCount, 1, "")).substr(16))
        << "the socket of the second is kept";
}

}  // namespace
