// SIGKILL at random moments: what was acknowledged is there afterwards, whole. 25 kills each; QUILL_KILLS
// names another number.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "quillplatform/shell.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"
#include "tests/support/scale.h"
#include "tests/support/store.h"

namespace {

unsigned rounds() { return scale("QUILL_KILLS", 25, 10000); }

class Kill : public testing::Test {
 protected:
    ~Kill() override {
        if (restarts.empty()) return;
        const Spread spread(restarts);
        report_figures(std::to_string(restarts.size()) + " restarts after kills, " +
                       std::to_string(acknowledged) + " changes acknowledged and there; back after " +
                       spread.text());
        EXPECT_LT(spread.p99, allowed(0.1)) << "seconds until there is service again";
    }

    double pause() { return static_cast<double>(random() % 40000) / 1e6; }

    Box box;
    std::mt19937 random{std::random_device()()};
    std::vector<double> restarts;
    size_t acknowledged = 0;
};

// A client that sets the values of many services, one after the other, until the daemon is gone.
TEST_F(Kill, TheDaemonLosesNoAcknowledgedValue) {
    constexpr int32_t kCodes = 50, kFirst = 1000;
    std::map<int32_t, uint32_t> values;
    int32_t unanswered = 0;  // code of the request that was under way
    uint32_t last = 0;
    security_cmi_timeout = 10;
    for (unsigned round = 0; round <= rounds(); ++round) {
        const double start = seconds_now();
        Daemon daemon;
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        restarts.push_back(seconds_now() - start);
        for (int32_t code = kFirst; code < kFirst + kCodes; ++code) {
            uint32_t value = 0;
            const uint32_t status = cmi_enable_info_config(1, GET_REQ, code, &value);
            if (code == unanswered && status == 0 && value == last) values[code] = value;
            ASSERT_EQ(values.contains(code) ? 0 : SECURITY_ERR_NO_VALUE, status)
                << code << ", round " << round;
            ASSERT_EQ(values[code], value) << code << ", round " << round;
            if (value == 0) values.erase(code);
        }
        if (round == rounds()) break;

        std::thread killer([&, after = pause()] {
            sleep_for(after);
            kill(daemon.pid(), SIGKILL);
        });
        uint32_t status = 0;
        while (status == 0) {
            unanswered = kFirst + static_cast<int32_t>(random() % kCodes);
            uint32_t value = ++last;
            status = cmi_enable_info_config(1, SET_REQ, unanswered, &value);
            if (status != 0) break;
            values[unanswered] = value;
            ++acknowledged;
        }
        killer.join();
        ASSERT_EQ(0xffffffffu, status);
    }
}

// One change of the store; both sides of the test make up the same ones.
struct Change {
    std::string key;
    std::string value;  // empty: the key is deleted
};

Change next_change(std::mt19937& numbers) {
    constexpr size_t kSizes[] = {0, 1, 136, 1104, 2200, 8193, 40000};
    Change change{numbered("key", static_cast<unsigned>(numbers() % 40)), {}};
    const size_t size = kSizes[numbers() % std::size(kSizes)];
    const std::string token = std::to_string(numbers()) + " ";
    while (change.value.size() < size) change.value += token;
    return change;
}

TEST_F(Kill, TheStoreKeepsEveryAcknowledgedChangeWhole) {
    std::map<std::string, std::string> records;
    for (unsigned round = 0; round < rounds(); ++round) {
        const auto seed = static_cast<uint32_t>(random());
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        const pid_t writer = start_child([&] {
            uint32_t handle = 0;
            EXPECT_EQ(PSS_OK, open_store(handle));
            for (std::mt19937 numbers(seed);;) {
                const Change change = next_change(numbers);
                const uint32_t status =
                    change.value.empty() ? erase(handle, change.key) : put(handle, change.key, change.value);
                if ((status != PSS_OK && status != PSS_NO_KEY) || write(ends[1], "", 1) != 1) _exit(3);
            }
        });
        close(ends[1]);
        sleep_for(0.005 + pause());
        kill(writer, SIGKILL);
        EXPECT_EQ(128 + SIGKILL, wait_for(writer));

        std::mt19937 numbers(seed);
        char byte;
        for (; read(ends[0], &byte, 1) == 1; ++acknowledged) {
            const Change done = next_change(numbers);
            records[done.key] = done.value;
        }
        close(ends[0]);
        const Change under_way = next_change(numbers);
        const double start = seconds_now();
        uint32_t handle = 0;
        ASSERT_EQ(PSS_OK, open_store(handle));
        restarts.push_back(seconds_now() - start);
        const auto holds = [handle](const std::string& key, const std::string& value) {
            return fetch(handle, key) == (value.empty() ? "[40480003]" : value);
        };
        if (holds(under_way.key, under_way.value)) records[under_way.key] = under_way.value;
        for (const auto& [key, value] : records) ASSERT_TRUE(holds(key, value)) << key << ", round " << round;
        ASSERT_EQ(PSS_OK, pss2_close(handle));
    }
}

}  // namespace
