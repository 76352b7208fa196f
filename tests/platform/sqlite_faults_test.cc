// The SQLite store on a failing disk: it returns the documented statuses, loses no value, and works again
// once the cause is gone. Failures during creation, and of other system calls, are those of
// tests/torture/disk_torture.cc.
#undef _FORTIFY_SOURCE  // its wrappers would conflict with the functions defined here
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/box.h"
#include "tests/support/interpose.h"
#include "tests/support/process.h"
#include "tests/support/store.h"

namespace {

// The function that fails, after how many successful calls, and whether later calls fail too. With error 0,
// the process is killed instead.
struct Fault {
    const char* call = "";
    int after = 0;
    int error = 0;
    bool lasting = false;
    bool happened = false;
} fault;

off64_t max_file_size = INT64_MAX;  // a write beyond it fails with ENOSPC

int flushes;     // successful calls of fdatasync()
bool unflushed;  // there was none since the last write or truncation

bool fails(const char* call) {
    if (strcmp(fault.call, call) != 0 || (fault.happened && !fault.lasting) || fault.after-- > 0)
        return false;
    fault.after = 0;
    fault.happened = true;
    if (fault.error == 0) raise(SIGKILL);
    errno = fault.error;
    return true;
}

}  // namespace

INTERPOSED ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t at) {
    if (fails("pwrite")) return -1;
    if (at + static_cast<off64_t>(size) > max_file_size) {
        errno = ENOSPC;
        return -1;
    }
    unflushed = true;
    return original<decltype(pwrite64)>("pwrite64")(file, bytes, size, at);
}
INTERPOSED ssize_t pread64(int file, void* bytes, size_t size, off64_t at) {
    return fails("pread") ? -1 : original<decltype(pread64)>("pread64")(file, bytes, size, at);
}
INTERPOSED int ftruncate64(int file, off64_t size) noexcept {
    if (fails("ftruncate")) return -1;
    unflushed = true;
    return original<decltype(ftruncate64)>("ftruncate64")(file, size);
}
INTERPOSED int fdatasync(int) {  // not passed on, to save time
    if (fails("fdatasync")) return -1;
    ++flushes;
    unflushed = false;
    return 0;
}

namespace {

class SqliteFaults : public testing::Test {
 protected:
    ~SqliteFaults() override {
        fault = {};
        max_file_size = INT64_MAX;
        pss2_close(handle);
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
    flushes = 0;
    ASSERT_EQ(PSS_OK, put(handle, "key", "other"));
    EXPECT_EQ(1, flushes);
    ASSERT_EQ(PSS_OK, put(handle, "second", std::string(9000, 'v')));
    EXPECT_EQ(2, flushes);
    ASSERT_EQ(PSS_OK, erase(handle, "key"));
    EXPECT_EQ(3, flushes) << "one for each change";
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    EXPECT_EQ(4, flushes) << "none if the version is the same";
}

TEST_F(SqliteFaults, AFailedWriteChangesNothing) {
    ASSERT_EQ(PSS_OK, open());
    std::string stored = "value0";
    ASSERT_EQ(PSS_OK, put(handle, "key", stored));
    unsigned count = 0;
    for (const char* call : {"pwrite", "fdatasync"}) {
        for (const auto& c : kErrors) {
            for (int after = 0; after < 5; ++after) {
                for (const bool lasting : {false, true}) {
                    SCOPED_TRACE(testing::Message()
                                 << call << " " << strerror(c.error) << " after " << after << lasting);
                    // Longer than a page, so that it takes several writes.
                    const std::string next = numbered(std::string(9000, 'v'), ++count);
                    fault = {call, after, c.error, lasting};
                    const uint32_t status = put(handle, "key", next);
                    const bool happened = fault.happened;
                    EXPECT_TRUE(status == (happened ? c.status : PSS_OK) || (status == PSS_OK && !lasting))
                        << status << ": failing to extend the log in advance is no error";
                    if (status == PSS_OK) stored = next;
                    EXPECT_TRUE(stored == fetch(handle, "key")) << "readable during the fault";
                    EXPECT_TRUE(!lasting || !happened || c.status == erase(handle, "key"));
                    fault = {};
                    EXPECT_TRUE(stored == fetch(handle, "key"));
                    if (count % 3 == 0) reopen();
                    EXPECT_TRUE(stored == fetch(handle, "key"));
                    EXPECT_EQ(PSS_OK, put(handle, numbered("other", count), next)) << "works again";
                }
            }
        }
    }
    reopen();
    EXPECT_TRUE(stored == fetch(handle, "key"));
    for (unsigned i = 1; i <= count; ++i)
        EXPECT_TRUE(numbered(std::string(9000, 'v'), i) == fetch(handle, numbered("other", i))) << i;
}

// Without any checkpoint by the caller.
TEST_F(SqliteFaults, NoChangeIsRefusedForSpaceThatTheLogTakes) {
    ASSERT_EQ(PSS_OK, open());
    max_file_size = 150000;
    for (unsigned i = 0; i < 200; ++i) {
        const std::string value = numbered(std::string(9000, 'v'), i);
        ASSERT_EQ(PSS_OK, put(handle, "key", value)) << i;
        ASSERT_EQ(value, fetch(handle, "key"));
        ASSERT_EQ(PSS_OK, erase(handle, "key")) << i;
        ASSERT_EQ("[40480003]", fetch(handle, "key"));
    }
}

// The process is killed right after the failure: recovery must not apply the failed change.
TEST_F(SqliteFaults, AFailedWriteStaysUndoneAfterACrash) {
    ASSERT_EQ(PSS_OK, open());
    ASSERT_EQ(PSS_OK, put(handle, "key", "old"));
    ASSERT_EQ(PSS_OK, pss2_close(handle));
    for (const char* call : {"pwrite", "fdatasync"}) {
        for (int after = 0; after < 4; ++after) {
            for (const bool lasting : {false, true}) {
                SCOPED_TRACE(testing::Message() << call << " after " << after << lasting);
                in_child([&] {
                    ASSERT_EQ(PSS_OK, open());
                    ASSERT_EQ(PSS_OK, put(handle, "other", "not checkpointed"));
                    fault = {call, after, EIO, lasting};
                    std::string stored = "old";
                    for (const std::string next : {"new", "newer", "old"})
                        if (put(handle, "key", next) == PSS_OK) stored = next;
                    write_file(box / "stored", stored);
                    kill(getpid(), SIGKILL);
                });
                ASSERT_EQ(PSS_OK, open());
                EXPECT_EQ(read_file(box / "stored"), fetch(handle, "key"));
                EXPECT_EQ("not checkpointed", fetch(handle, "other"));
                ASSERT_EQ(PSS_OK, put(handle, "key", "old"));
                ASSERT_EQ(PSS_OK, pss2_close(handle));
            }
        }
    }
}

TEST_F(SqliteFaults, AFailedCheckpointIsRepeated) {
    for (const char* call : {"pwrite", "fdatasync", "ftruncate"}) {
        for (int after = 0; after < 4; ++after) {
            SCOPED_TRACE(testing::Message() << call << " after " << after);
            ASSERT_EQ(PSS_OK, open());
            ASSERT_EQ(PSS_OK, put(handle, "key", "first secret"));
            ASSERT_EQ(PSS_OK, put(handle, "key", "second"));
            fault = {call, after, EIO, true};
            const uint32_t status = pss2_checkpoint();
            EXPECT_EQ(fault.happened && (after == 0 || strcmp(call, "pwrite") != 0) ? PSS_IO : PSS_OK, status)
                << "a log that cannot be overwritten is truncated";
            EXPECT_EQ("second", fetch(handle, "key"));
            fault = {};
            EXPECT_EQ(PSS_OK, pss2_checkpoint());
            EXPECT_FALSE(unflushed) << "a power failure would restore the log";
            expect_no_file_holds("first secret");
            reopen();
            EXPECT_EQ("second", fetch(handle, "key"));
            pss2_close(handle);
        }
    }
}

// The process is killed during a checkpoint, before each write in turn.
TEST_F(SqliteFaults, OpeningCompletesAnInterruptedCheckpoint) {
    constexpr char kSecret[] = "planted secret";
    for (int after = 0; after < 60; ++after) {
        const int end = in_child([&] {
            ASSERT_EQ(PSS_OK, open());
            for (unsigned i = 0; i < 60; ++i) {
                ASSERT_EQ(PSS_OK, put(handle, numbered("key", i), std::string(3000, 'v') + kSecret));
                ASSERT_EQ(PSS_OK, erase(handle, numbered("key", i)));
            }
            fault = {"pwrite", after, 0, false};
            pss2_checkpoint();
        });
        ASSERT_EQ(PSS_OK, open());
        expect_no_file_holds(kSecret);
        pss2_close(handle);
        if (end == 0) return;
    }
    ADD_FAILURE() << "no checkpoint was completed";
}

TEST_F(SqliteFaults, AFailedReadIsReportedAndTemporary) {
    ASSERT_EQ(PSS_OK, open());
    constexpr unsigned kRecords = 60;
    for (unsigned i = 0; i < kRecords; ++i) put(handle, numbered("key", i), std::string(60000, 'v'));
    reopen();
    fault = {"pread", 0, EIO, true};
    unsigned failed = 0;
    for (unsigned i = 0; i < kRecords; ++i) failed += fetch(handle, numbered("key", i)) == "[4048000c]";
    EXPECT_LT(kRecords / 2, failed) << fetch(handle, "key59");
    fault = {};
    for (unsigned i = 0; i < kRecords; ++i)
        EXPECT_TRUE(std::string(60000, 'v') == fetch(handle, numbered("key", i)));
}

}  // namespace
