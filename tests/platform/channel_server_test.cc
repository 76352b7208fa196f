// The server's end of the request channel, with raw clients and the library's.
#include <sys/resource.h>

#include <utility>
#include <vector>

#include "quillsecurity/status.h"
#include "tests/platform/channel_test.h"

namespace {

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

// Idle clients, one that reads no replies, one that sends a truncated request, and some that disconnect at
// once.
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
