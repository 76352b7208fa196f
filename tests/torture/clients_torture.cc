// Many clients at once: no reply is lost or sent to another client, no client gets the permissions of
// another, and the daemon's memory does not grow.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <thread>

#include "quillplatform/shell.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"
#include "tests/support/scale.h"

namespace {

// A client that sets and reads a service of its own repeatedly and checks the replies.
struct CheckingClient {
    explicit CheckingClient(uint32_t service) : code(service) {}

    void ask() {
        const bool sets = count++ % 10 == 0;
        value += sets;
        const double start = seconds_now();
        const std::string reply = client.ask(service_frame(sets ? SET_REQ : GET_REQ, code, sets ? value : 0));
        constexpr size_t kKept = 100000;  // later durations overwrite the oldest
        durations.resize(std::min<size_t>(std::max<size_t>(durations.size(), count), kKept));
        durations[(count - 1) % kKept] = seconds_now() - start;
        wrong += reply != reply_frame(0, word(code) + word(value));
    }

    RawClient client;
    uint32_t code, value = 0;
    unsigned count = 0, wrong = 0;
    std::vector<double> durations;
};

// Sends a request by the library's channel, which threads share. Returns whether the reply has the value
// `want`.
bool exchange(uint32_t operation, uint32_t code, uint32_t value, uint32_t want) {
    std::string record = word(code) + word(value);
    auto length = static_cast<uint32_t>(record.size());
    void* reply = nullptr;
    const int32_t status =
        security_cmi(SECURITY_ENABLE_INFO_REQUEST, operation, record.data(), &reply, &length, 1);
    const bool correct =
        status == 0 && std::string(static_cast<char*>(reply), length) == word(code) + word(want);
    free(reply);
    return correct;
}

class Clients : public testing::Test {
 protected:
    Clients() {
        setenv("LD_PRELOAD", FAULTS_LIBRARY, 1);  // the daemon does not wait for the disk
        daemon = std::make_unique<Daemon>();
        unsetenv("LD_PRELOAD");
        EXPECT_TRUE(daemon->ready()) << daemon->log();
    }

    const Box box;
    std::unique_ptr<Daemon> daemon;
};

// Threads with connections of their own, and some that share one.
TEST_F(Clients, GetTheirOwnReplies) {
    const unsigned seconds = scale("QUILL_CONCURRENT_SECONDS", 5, 600);
    constexpr unsigned kClients = 64, kSharing = 8;
    security_cmi_timeout = 30;
    std::vector<CheckingClient> clients;
    for (unsigned i = 0; i < kClients; ++i) clients.emplace_back(5000 + i);
    std::atomic<unsigned> shared_requests = 0, wrong = 0;
    const double start = seconds_now(), warm = start + seconds / 10., end = start + seconds;
    std::vector<std::thread> threads;
    for (auto& client : clients)
        threads.emplace_back([&] {
            while (seconds_now() < end) client.ask();
        });
    for (unsigned i = 0; i < kSharing; ++i)
        threads.emplace_back([&, code = 6000 + i] {
            for (uint32_t value = 1; seconds_now() < end; ++value, ++shared_requests)
                wrong += !exchange(SET_REQ, code, value, value) || !exchange(GET_REQ, code, 0, value);
        });
    sleep_for(warm - seconds_now());
    const unsigned before = daemon->kilobytes();
    for (auto& thread : threads) thread.join();
    std::vector<double> durations;
    unsigned requests = 2 * shared_requests;
    for (auto& client : clients) {
        wrong += client.wrong;
        requests += client.count;
        EXPECT_LT(0u, client.count) << "a client without replies";
        durations.insert(durations.end(), client.durations.begin(), client.durations.end());
    }
    EXPECT_EQ(0u, wrong) << "wrong replies";
    const unsigned after = daemon->kilobytes();
    EXPECT_LE(after, before + allowed(0.05 * before)) << "kilobytes of the daemon";
    report_figures(std::to_string(requests) + " requests of " + std::to_string(kClients + kSharing) +
                   " clients at once, none lost or mixed; " + Spread(durations).text() + "; memory " +
                   std::to_string(before) + " to " + std::to_string(after) + " kB");
    EXPECT_EQ(0, daemon->end()) << daemon->log();
}

TEST_F(Clients, HaveTheirOwnPermissions) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can change its user";
    constexpr uint32_t kForbidden = 4242, kAllowed = 4243;  // codes of services
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
    report_figures(std::to_string(4 * count) + " connections that raced, none taken for another");
}

}  // namespace
