// The SQLite store on a failing disk: it returns the documented statuses, loses no value, and works again
// once the cause is gone. The faults are those of tests/torture/faults.cc, which is linked in.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>

#include "tests/support/box.h"
#include "tests/support/process.h"
#include "tests/support/store.h"
#include "tests/torture/fault.h"

namespace {

class SqliteFaults : public testing::Test {
 protected:
    SqliteFaults() { injected_fault = &fault; }
    ~SqliteFaults() override {
        fault.end();
        pss2_close(handle);
        injected_fault = nullptr;
    }

    uint32_t open() { return open_store(handle); }

    void reopen() {
        ASSERT_EQ(PSS_OK, pss2_close(handle));
        ASSERT_EQ(PSS_OK, open());
    }

    void expect_no_file_holds(const char* secret) const {
        for (const auto& [name, bytes] : files_in(box.state()))
            EXPECT_EQ(std::string::npos, bytes.find(secret)) << name;
    }

    Box box;
    Fault fault{};
    uint32_t handle = 0;
};

const struct {
    int error;
    uint32_t status;
} kErrors[] = {
    {EIO, PSS_IO}, {ENOSPC, PSS_FULL}, {EDQUOT, PSS_QUOTA}, {EROFS, PSS_READ_ONLY}, {EFBIG, PSS_TOO_LARGE},
};

TEST_F(SqliteFaults, ASuccessfulChangeIsOnDisk) {
    ASSERT_EQ(PSS_OK, open());
    ASSERT_EQ(PSS_OK, put(handle, "key", "value"));  // creates the log, with flushes of its own
    fault.flushes = 0;
    ASSERT_EQ(PSS_OK, put(handle, "key", "other"));
    EXPECT_EQ(1, fault.flushes);
    ASSERT_EQ(PSS_OK, put(handle, "second", std::string(9000, 'v')));
    EXPECT_EQ(2, fault.flushes);
    ASSERT_EQ(PSS_OK, erase(handle, "key"));
    EXPECT_EQ(3, fault.flushes) << "one for each change";
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    EXPECT_EQ(4, fault.flushes) << "none if the version is the same";
    EXPECT_EQ(0u, std::filesystem::file_size(box.state() + "/s.db-wal") % 65536) << "extended in advance";
}

TEST_F(SqliteFaults, AFailedWriteChangesNothing) {
    ASSERT_EQ(PSS_OK, open());
    std::string stored = "value0";
    ASSERT_EQ(PSS_OK, put(handle, "key", stored));
    unsigned count = 0;
    const auto fail = [&](int kinds, const auto& c, unsigned after, unsigned times) {
        SCOPED_TRACE(testing::Message() << strerror(c.error) << " after " << after << ", " << times);
        // Longer than a page, so that it takes several writes.
        const std::string next = numbered(std::string(9000, 'v'), ++count);
        fault.arm(c.error, after, times, kinds);
        const uint32_t status = put(handle, "key", next);
        const bool happened = fault.failed != 0;
        EXPECT_TRUE(status == (happened ? c.status : PSS_OK) || (status == PSS_OK && times == 1))
            << status << ": failing to extend the log in advance is no error";
        if (status == PSS_OK) stored = next;
        EXPECT_TRUE(stored == fetch(handle, "key")) << "readable during the fault";
        EXPECT_TRUE(times == 1 || !happened || c.status == erase(handle, "key"));
        fault.end();
        EXPECT_TRUE(stored == fetch(handle, "key"));
        if (count % 3 == 0) reopen();
        EXPECT_TRUE(stored == fetch(handle, "key"));
        EXPECT_EQ(PSS_OK, put(handle, numbered("other", count), next)) << "works again";
        return happened;
    };
    for (const int kinds : {Fault::kWrite + Fault::kFlush, +Fault::kFlush})
        for (const auto& c : kErrors)
            for (const unsigned times : {1u, UINT_MAX})
                for (unsigned after = 0; fail(kinds, c, after, times);) ++after;
    reopen();
    EXPECT_TRUE(stored == fetch(handle, "key"));
    for (unsigned i = 1; i <= count; ++i)
        EXPECT_TRUE(numbered(std::string(9000, 'v'), i) == fetch(handle, numbered("other", i))) << i;
}

// Without any checkpoint by the caller.
TEST_F(SqliteFaults, NoChangeIsRefusedForSpaceThatTheLogTakes) {
    const int ended = in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{150000, 150000};
        setrlimit(RLIMIT_FSIZE, &limit);
        ASSERT_EQ(PSS_OK, open());
        for (unsigned i = 0; i < 200; ++i) {
            const std::string value = numbered(std::string(9000, 'v'), i);
            ASSERT_EQ(PSS_OK, put(handle, "key", value)) << i;
            ASSERT_EQ(value, fetch(handle, "key"));
            ASSERT_EQ(PSS_OK, erase(handle, "key")) << i;
            ASSERT_EQ("[40480003]", fetch(handle, "key"));
        }
    });
    EXPECT_EQ(0, ended);
}

// Each system call on the files fails in turn while a store is created, opened, recovered or changed: once,
// all that follow too, or all flushes that follow. A change that failed has no effect, even if the process is
// killed right after it, unless no call works any more.
TEST_F(SqliteFaults, AnyCallMayFail) {
    enum State { kNone, kClosed, kKilled, kOpen };
    enum Extent { kOnce, kAll, kFlushes };
    constexpr int kErrno[] = {EIO, ENOSPC, EINTR};
    const auto prepare = [&](State state) {
        if (state == kNone) return;
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "old"));
        ASSERT_EQ(PSS_OK, put(handle, "other", "kept"));
        if (state == kKilled) raise(SIGKILL);
        if (state == kClosed) pss2_close(handle);
    };
    const auto run = [&](State state, Extent extent, unsigned after) {
        if (state == kOpen) prepare(kOpen);
        std::string stored = state == kNone ? "[40480003]" : "old";
        const int error = kErrno[after % 3];
        const unsigned times = extent == kOnce ? 1 : error == EINTR ? 100 : UINT_MAX;  // EINTR is repeated
        fault.arm(error, after, times, extent == kFlushes ? Fault::kFlush : Fault::kAny);
        if (state == kOpen || open() == PSS_OK)
            for (const char* next : {"new", "newer", "newest"})
                if (put(handle, "key", next) == PSS_OK) stored = next;
        if (after % 2 == 0) pss2_checkpoint();
        write_file(box / "stored", stored);
        if (fault.failed == 0) return;
        if (extent != kAll) raise(SIGKILL);
        fault.end();
        EXPECT_TRUE(handle != 0 || open() == PSS_OK) << "works again";
        EXPECT_EQ(stored, fetch(handle, "key"));
        EXPECT_EQ(PSS_OK, put(handle, "after", "the fault"));
        if (!HasFailure()) raise(SIGKILL);
    };
    for (const State state : {kNone, kClosed, kKilled, kOpen}) {
        for (const Extent extent : {kOnce, kAll, kFlushes}) {
            int ended = 128 + SIGKILL;
            for (unsigned after = 0; ended == 128 + SIGKILL; ++after) {
                SCOPED_TRACE(testing::Message() << state << ", " << extent << ", call " << after);
                std::filesystem::remove_all(box.state());
                in_child([&] { prepare(state == kOpen ? kNone : state); });
                ended = in_child([&] { run(state, extent, after); });
                ASSERT_EQ(PSS_OK, open());
                EXPECT_EQ(read_file(box / "stored"), fetch(handle, "key"));
                EXPECT_EQ(state == kNone ? "[40480003]" : "kept", fetch(handle, "other"));
                ASSERT_EQ(PSS_OK, pss2_close(handle));
                handle = 0;
            }
            ASSERT_EQ(0, ended);
        }
    }
}

TEST_F(SqliteFaults, AFailedCheckpointIsRepeated) {
    for (bool happened = true, first = true; happened; first = false) {
        static unsigned after = 0;
        SCOPED_TRACE(after);
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "first secret"));
        ASSERT_EQ(PSS_OK, put(handle, "key", "second"));
        fault.arm(EIO, after++);
        const uint32_t status = pss2_checkpoint();
        happened = fault.failed != 0;
        EXPECT_TRUE(status == PSS_OK ? !first : happened && status == PSS_IO) << status;
        EXPECT_EQ("second", fetch(handle, "key"));
        fault.end();
        EXPECT_EQ(PSS_OK, pss2_checkpoint());
        EXPECT_FALSE(fault.unflushed) << "a power failure would restore the log";
        expect_no_file_holds("first secret");
        reopen();
        EXPECT_EQ("second", fetch(handle, "key"));
        pss2_close(handle);
    }
}

// The process is killed during a checkpoint, before each system call in turn.
TEST_F(SqliteFaults, OpeningCompletesAnInterruptedCheckpoint) {
    constexpr char kSecret[] = "planted secret";
    int ended = 128 + SIGKILL;
    for (unsigned after = 0; ended == 128 + SIGKILL; after += 3) {
        ended = in_child([&] {
            ASSERT_EQ(PSS_OK, open());
            for (unsigned i = 0; i < 60; ++i) {
                ASSERT_EQ(PSS_OK, put(handle, numbered("key", i), std::string(3000, 'v') + kSecret));
                ASSERT_EQ(PSS_OK, erase(handle, numbered("key", i)));
            }
            fault.arm(Fault::kKill, after);
            pss2_checkpoint();
        });
        ASSERT_EQ(PSS_OK, open());
        expect_no_file_holds(kSecret);
        pss2_close(handle);
    }
    EXPECT_EQ(0, ended);
}

TEST_F(SqliteFaults, AFailedReadIsReportedAndTemporary) {
    ASSERT_EQ(PSS_OK, open());
    constexpr unsigned kRecords = 60;
    for (unsigned i = 0; i < kRecords; ++i) put(handle, numbered("key", i), std::string(60000, 'v'));
    reopen();
    fault.arm(EIO, 0, UINT_MAX, Fault::kRead);
    unsigned failed = 0;
    for (unsigned i = 0; i < kRecords; ++i) failed += fetch(handle, numbered("key", i)) == "[4048000c]";
    EXPECT_LT(kRecords / 2, failed) << fetch(handle, "key59");
    fault.end();
    for (unsigned i = 0; i < kRecords; ++i)
        EXPECT_TRUE(std::string(60000, 'v') == fetch(handle, numbered("key", i)));
}

// It is refused and left unchanged, or its intact records are read.
TEST_F(SqliteFaults, ADamagedFileYieldsNoWrongValue) {
    constexpr unsigned kRecords = 40;
    const auto value = [](unsigned i) { return numbered(std::string(2100, 'v'), i); };
    ASSERT_EQ(PSS_OK, open());
    for (unsigned i = 0; i < kRecords; ++i) ASSERT_EQ(PSS_OK, put(handle, numbered("key", i), value(i)));
    pss2_close(handle);
    const std::string file = box.state() + "/s.db", whole = read_file(file);
    unsigned refused = 0, unreadable = 0;
    const auto check = [&](const std::string& bytes) {
        std::filesystem::remove(file + "-wal");
        write_file(file, bytes);
        refused += open() != PSS_OK;
        for (unsigned i = 0; i < kRecords && handle != 0; ++i) {
            const std::string found = fetch(handle, numbered("key", i));
            EXPECT_TRUE(found == value(i) || (found[0] == '[' && found != "[40480003]")) << found;
            unreadable += found != value(i);
        }
        for (const auto& [name, left] : files_in(box.state()))
            EXPECT_TRUE(left == (name == "s.db" ? bytes : "") || (handle != 0 && name != "s.db")) << name;
        pss2_close(handle);
    };
    for (const size_t length : {size_t{0}, size_t{50}, size_t{100}, size_t{512}, whole.size() / 2,
                                whole.size() - 4096, whole.size() - 1})
        check(whole.substr(0, length));
    std::mt19937 random(1);
    const std::function<char(char)> damages[] = {[](char) { return '\0'; },
                                                 [](char c) { return static_cast<char>(~c); },
                                                 [&](char) { return static_cast<char>(random()); }};
    for (const auto& damage : damages) {
        const auto check_damaged = [&](size_t from, size_t size) {
            std::string bytes = whole;
            std::transform(&bytes[from], &bytes[from] + size, &bytes[from], damage);
            check(bytes);
        };
        check_damaged(0, whole.size());
        check_damaged(0, 100);
        for (size_t page = 0; page < whole.size(); page += 4096) check_damaged(page, 4096);
    }
    EXPECT_LT(0u, refused);
    EXPECT_LT(0u, unreadable) << "no damage was found";
}

}  // namespace
