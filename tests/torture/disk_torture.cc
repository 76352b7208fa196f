// The daemon on a failing disk: each system call on its store fails in turn, once or from then on, while the
// daemon starts and while it serves requests. And the daemon with a damaged store.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <random>

#include "quillplatform/pss.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"
#include "tests/support/scale.h"
#include "tests/support/store.h"
#include "tests/torture/fault.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kKeys = 40;

std::string key_record(unsigned user, const std::string& text) {
    ssh_key_rec record{};
    numbered("user", user).copy(record.user_name, sizeof record.user_name - 1);
    text.copy(record.key_text, sizeof record.key_text - 1);
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

std::string ask(RawClient& client, uint32_t operation, unsigned user, const std::string& text = "") {
    return client.ask(request_frame(SECURITY_SSHKEY_FILE_REQUEST, operation, key_record(user, text)));
}

bool succeeded(const std::string& reply) { return reply.size() >= 12 && reply.compare(8, 4, word(0)) == 0; }

// Changes users' keys and remembers what must be stored: a change that failed must have no effect.
class Model {
 public:
    explicit Model(RawClient& client) {
        for (unsigned user = 0; user < kKeys; ++user) EXPECT_TRUE(set(client, user));
    }

    bool set(RawClient& client, unsigned user) {
        std::string text;
        while (text.size() < 2100) text += numbered("key ", ++last_) + " ";
        const bool done = succeeded(ask(client, SET_REQ, user, text));
        if (done) texts_[user] = text;
        return done;
    }
    void erase(RawClient& client, unsigned user) {
        if (succeeded(ask(client, DEL_REQ, user))) texts_.erase(user);
    }

    // Whether the reply for this user is correct or, with `may_fail`, reports a failure.
    bool is_correct(RawClient& client, unsigned user, bool may_fail = false) const {
        const std::string reply = ask(client, GET_REQ, user);
        const auto found = texts_.find(user);
        if (found != texts_.end() && reply == reply_frame(0, key_record(user, found->second))) return true;
        if (found == texts_.end() && reply == reply_frame(SECURITY_ERR_NOT_FOUND, "")) return true;
        return may_fail && reply.size() == 16 && !succeeded(reply) &&
               reply != reply_frame(SECURITY_ERR_NOT_FOUND, "");
    }
    void expect_all(const char* when) const {
        RawClient client;
        for (unsigned user = 0; user < kKeys; ++user)
            EXPECT_TRUE(is_correct(client, user)) << when << ", " << user;
    }

 private:
    unsigned last_ = 0;
    std::map<unsigned, std::string> texts_;
};

// Totals of the processes that run the cases, in shared memory.
struct Tally {
    std::atomic<unsigned> cases, refused_starts;
    std::atomic<unsigned> calls[4];  // how many different calls failed, for each error
    std::atomic<double> longest;     // seconds from the end of a fault until a request succeeded
};

class Disk : public testing::Test {
 protected:
    Disk() : tally(*new (shared_memory()) Tally{}) {}
    ~Disk() override { munmap(&tally, sizeof tally); }

    static void* shared_memory() {
        return mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    }

    // Runs one process for each error, with a Box of its own. It runs the body once for each failing call,
    // until there are no more; at brief scale only for some calls.
    template <class Body>
    void in_parallel(Body body) {
        const unsigned step = scale("QUILL_FAULT_STEP", 12, 1);
        const int errors[] = {EIO, ENOSPC, EDQUOT, EINTR};
        std::vector<pid_t> children;
        for (unsigned kind = 0; kind < std::size(errors); ++kind)
            children.push_back(start_child([&, kind] {
                Box box;
                setenv("QUILL_FAULTS", (box / "faults").c_str(), 1);
                setenv("LD_PRELOAD", FAULTS_LIBRARY, 1);
                fault = map_fault(box / "faults");
                const auto run_case = [&](unsigned call, bool permanently) {
                    // EINTR is limited: interrupted calls are repeated.
                    const unsigned times = !permanently ? 1 : errors[kind] == EINTR ? 100 : UINT_MAX;
                    SCOPED_TRACE(testing::Message()
                                 << strerror(errors[kind]) << " " << times << " times from call " << call);
                    ++tally.cases;
                    return body(box, errors[kind], call, times);
                };
                for (unsigned call = kind * step / 4;; call += step) {
                    const bool permanently = call / step % 2 != 0;
                    if (!run_case(call, permanently) || (step == 1 && !run_case(call, !permanently))) break;
                    tally.calls[kind] = call + 1;
                }
            }));
        for (const pid_t child : children) EXPECT_EQ(0, wait_for(child));
    }

    void record_recovery(double since) {
        tally.longest = std::max<double>(tally.longest, seconds_now() - since);
    }
    void report(const std::string& what) const {
        const unsigned calls = *std::min_element(std::begin(tally.calls), std::end(tally.calls));
        EXPECT_GT(calls, 20u) << "faults of one kind were not injected";
        EXPECT_LT(tally.longest, allowed(1.0)) << "seconds until a request succeeded again";
        report_figures(what + ": " + std::to_string(tally.cases) + " faults in " + std::to_string(calls) +
                       " calls, " + std::to_string(tally.refused_starts) +
                       " starts refused; service again within " +
                       std::to_string(static_cast<int>(tally.longest * 1e3)) + " ms");
    }

    Tally& tally;
    Fault* fault = nullptr;
};

TEST_F(Disk, FailsWhileTheDaemonServes) {
    in_parallel([&](Box& box, int error, unsigned call, unsigned times) {
        fs::remove_all(box.state());
        std::optional<Model> model;
        {
            Daemon daemon;
            RawClient client;
            model.emplace(client);
            daemon.end(call % 2 != 0 ? SIGKILL : SIGTERM);
        }
        Daemon daemon;
        EXPECT_TRUE(daemon.ready()) << daemon.log();
        RawClient client;
        fault->arm(error, call, times);
        EXPECT_TRUE(model->is_correct(client, 7, true)) << "read from the disk";
        for (unsigned user = 3; user < 6; ++user) {
            model->set(client, user);
            EXPECT_TRUE(model->is_correct(client, user, true));
        }
        model->erase(client, 20);
        EXPECT_TRUE(model->is_correct(client, 20, true));
        for (const double end = seconds_now() + 0.7; fault->failed < times && seconds_now() < end;)
            sleep_for(0.02);  // until the checkpoint
        const bool happened = fault->failed != 0;
        const double ended = seconds_now();
        fault->end();
        while (!model->set(client, 9) && seconds_now() < ended + 5) sleep_for(0.01);
        record_recovery(ended);
        model->expect_all("after the fault");
        EXPECT_EQ(128 + SIGKILL, daemon.end(SIGKILL)) << "the daemon had crashed";
        Daemon next;
        EXPECT_TRUE(next.ready()) << next.log();
        model->expect_all("after a restart");
        return happened && !testing::Test::HasFailure();
    });
    report("serving");
}

TEST_F(Disk, FailsWhileTheDaemonStarts) {
    in_parallel([&](Box& box, int error, unsigned call, unsigned times) {
        bool happened = false;
        for (const int end : {0, SIGTERM, SIGKILL}) {  // no store, one after a clean exit, one after a crash
            fs::remove_all(box.state());
            std::optional<Model> model;
            if (end != 0) {
                Daemon daemon;
                RawClient client;
                model.emplace(client);
                daemon.end(end);
            }
            fault->arm(error, call, times);
            auto daemon = std::make_unique<Daemon>();
            happened |= fault->failed != 0;
            const double ended = seconds_now();
            fault->end();
            if (!daemon->ready()) {
                EXPECT_EQ(1, daemon->end(0)) << daemon->log();
                EXPECT_NE(std::string::npos, daemon->log().find(box.state())) << daemon->log();
                ++tally.refused_starts;
                daemon = std::make_unique<Daemon>();
                EXPECT_TRUE(daemon->ready()) << daemon->log();
            }
            RawClient client;
            if (!model) model.emplace(client);
            EXPECT_TRUE(model->set(client, 9)) << daemon->log();
            record_recovery(ended);
            model->expect_all("after the fault");
        }
        return happened && !testing::Test::HasFailure();
    });
    report("starting");
}

// It is refused and left unchanged, or its intact records are served. No reply has anything but stored data.
TEST_F(Disk, ADamagedStoreIsReportedAndNeverOverwritten) {
    Box box;
    std::optional<Model> model;
    {
        Daemon daemon;
        RawClient client;
        model.emplace(client);
        daemon.end();
    }
    const std::string file = box.state() + "/security.db", whole = read_file(file);
    std::mt19937 numbers(1);
    const std::function<char(char)> damages[] = {[](char) { return '\0'; },
                                                 [](char c) { return static_cast<char>(~c); },
                                                 [&](char) { return static_cast<char>(numbers()); }};
    unsigned refused = 0, served = 0, unreadable = 0, unaffected = 0;
    const auto check = [&](const std::string& what, const std::string& bytes) {
        SCOPED_TRACE(what);
        fs::remove(file + "-wal");
        write_file(file, bytes);
        Daemon daemon;
        if (!daemon.ready()) {
            ++refused;
            EXPECT_EQ(1, daemon.end(0));
            EXPECT_NE(std::string::npos, daemon.log().find("store " + file + ": ")) << daemon.log();
            for (const auto& [name, left] : files_in(box.state()))
                EXPECT_EQ(name == "security.db" ? bytes : "", left) << name;
            return;
        }
        ++served;
        RawClient client;
        unsigned failed = 0;
        for (unsigned user = 0; user < kKeys; ++user) {
            EXPECT_TRUE(model->is_correct(client, user, true)) << user;
            failed += !model->is_correct(client, user);
        }
        unreadable += failed;
        unaffected += failed == 0;
        EXPECT_EQ(failed != 0, daemon.log().find("damaged") != std::string::npos) << daemon.log();
        for (const auto& [name, left] : files_in(box.state()))
            EXPECT_TRUE(name != "security.db" || left == bytes) << "changed by reading";
    };
    for (const size_t length : {size_t{0}, size_t{50}, size_t{100}, size_t{512}, whole.size() / 2,
                                whole.size() - 4096, whole.size() - 1})
        check("truncated to " + std::to_string(length), whole.substr(0, length));
    for (const auto& damage : damages) {
        const auto damaged = [&](size_t from, size_t size) {
            std::string bytes = whole;
            for (size_t i = from; i < from + size; ++i) bytes[i] = damage(bytes[i]);
            return bytes;
        };
        const auto kind = std::to_string(&damage - damages) + " at ";
        check(kind + "all", damaged(0, whole.size()));
        check(kind + "header", damaged(0, 100));
        for (size_t page = 0; page < whole.size(); page += 4096)
            check(kind + std::to_string(page), damaged(page, 4096));
    }
    EXPECT_LT(0u, refused);
    EXPECT_LT(0u, unreadable) << "no damage was found";
    report_figures(std::to_string(refused) + " damaged stores refused and untouched, " +
                   std::to_string(served) + " served with " + std::to_string(unreadable) +
                   " records that cannot be read, " + std::to_string(unaffected) + " of them without any");
}

}  // namespace
