// The disk under the SQLite store fails: statuses as documented, no value lost or half replaced, and service
// again once the cause is gone.
#undef _FORTIFY_SOURCE  // its wrappers would clash with the calls defined here
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "tests/support/box.h"
#include "tests/support/process.h"
#include "tests/support/store.h"

namespace {

// The call that fails, how many of its kind go well before, and whether it goes on failing. With error 0 it
// ends the process instead.
struct Fault {
    const char* call = "";
    int after = 0;
    int error = 0;
    bool lasting = false;
    bool happened = false;
} fault;

off64_t longest = INT64_MAX;  // no file takes more

int flushes;     // fdatasync calls that went well
bool unflushed;  // none since something was written or cut off

bool fails(const char* call) {
    if (strcmp(fault.call, call) != 0 || (fault.happened && !fault.lasting) || fault.after-- > 0)
        return false;
    fault.after = 0;
    fault.happened = true;
    if (fault.error == 0) raise(SIGKILL);
    errno = fault.error;
    return true;
}

template <class Call>
Call* real(const char* name) {
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// SQLite's calls arrive here first: a program's definitions take precedence over the C library's.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t at) {
    if (fails("pwrite")) return -1;
    if (at + static_cast<off64_t>(size) > longest) {
        errno = ENOSPC;
        return -1;
    }
    unflushed = true;
    return real<decltype(pwrite64)>("pwrite64")(file, bytes, size, at);
}
INTERPOSED ssize_t pread64(int file, void* bytes, size_t size, off64_t at) {
    return fails("pread") ? -1 : real<decltype(pread64)>("pread64")(file, bytes, size, at);
}
INTERPOSED int ftruncate64(int file, off64_t size) noexcept {
    if (fails("ftruncate")) return -1;
    unflushed = true;
    return real<decltype(ftruncate64)>("ftruncate64")(file, size);
}
INTERPOSED int fdatasync(int) {  // counted, not waited for
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
        longest = INT64_MAX;
        pss2_close(handle);
    }

    uint32_t open() {
        const uint32_t parameters[4] = {};
        uint32_t status = 0x55;
        handle = pss2_open("s", PSS_READ_WRITE | PSS_CREATE, 0, 0, parameters, &status);
        return status;
    }

    // Ends the process that holds the store without a word, and opens it anew.
    void reopen() {
        ASSERT_EQ(PSS_OK, pss2_close(handle));
        ASSERT_EQ(PSS_OK, open());
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

TEST_F(SqliteFaults, AWriteThatAnsweredIsOnDisk) {
    ASSERT_EQ(PSS_OK, open());
    ASSERT_EQ(PSS_OK, put(handle, "key", "value"));  // begins the log, which takes flushes of its own
    flushes = 0;
    ASSERT_EQ(PSS_OK, put(handle, "key", "other"));
    EXPECT_EQ(1, flushes);
    ASSERT_EQ(PSS_OK, put(handle, "second", std::string(9000, 'v')));
    EXPECT_EQ(2, flushes);
    ASSERT_EQ(PSS_OK, erase(handle, "key"));
    EXPECT_EQ(3, flushes) << "one each";
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, 7));
    EXPECT_EQ(4, flushes) << "none for what is so already";
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
                    // Longer than a page, so that several writes go with it.
                    const std::string next = numbered(std::string(9000, 'v'), ++count);
                    fault = {call, after, c.error, lasting};
                    const uint32_t status = put(handle, "key", next);
                    const bool happened = fault.happened;
                    EXPECT_TRUE(status == (happened ? c.status : PSS_OK) || (status == PSS_OK && !lasting))
                        << status << ": room that cannot be taken in advance is not needed yet";
                    if (status == PSS_OK) stored = next;
                    EXPECT_TRUE(stored == fetch(handle, "key")) << "readable all the while";
                    EXPECT_TRUE(!lasting || !happened || c.status == erase(handle, "key"));
                    fault = {};
                    EXPECT_TRUE(stored == fetch(handle, "key"));
                    if (count % 3 == 0) reopen();
                    EXPECT_TRUE(stored == fetch(handle, "key"));
                    EXPECT_EQ(PSS_OK, put(handle, numbered("other", count), next)) << "service resumes";
                }
            }
        }
    }
    reopen();
    EXPECT_TRUE(stored == fetch(handle, "key"));
    for (unsigned i = 1; i <= count; ++i)
        EXPECT_TRUE(numbered(std::string(9000, 'v'), i) == fetch(handle, numbered("other", i))) << i;
}

// Changes come faster than anybody settles them.
TEST_F(SqliteFaults, NoChangeIsRefusedForRoomThatOnlyTheLogHasTaken) {
    ASSERT_EQ(PSS_OK, open());
    longest = 150000;
    for (unsigned i = 0; i < 200; ++i) {
        const std::string value = numbered(std::string(9000, 'v'), i);
        ASSERT_EQ(PSS_OK, put(handle, "key", value)) << i;
        ASSERT_EQ(value, fetch(handle, "key"));
        ASSERT_EQ(PSS_OK, erase(handle, "key")) << i;
        ASSERT_EQ("[40480003]", fetch(handle, "key"));
    }
}

// The process dies right after the failure: what was refused must not come back as stored.
TEST_F(SqliteFaults, AFailedWriteStaysUndoneWhenTheProcessDies) {
    ASSERT_EQ(PSS_OK, open());
    ASSERT_EQ(PSS_OK, put(handle, "key", "old"));
    ASSERT_EQ(PSS_OK, pss2_close(handle));
    for (const char* call : {"pwrite", "fdatasync"}) {
        for (int after = 0; after < 4; ++after) {
            for (const bool lasting : {false, true}) {
                SCOPED_TRACE(testing::Message() << call << " after " << after << lasting);
                in_child([&] {
                    ASSERT_EQ(PSS_OK, open());
                    ASSERT_EQ(PSS_OK, put(handle, "other", "unsettled"));
                    fault = {call, after, EIO, lasting};
                    std::string stored = "old";
                    for (const std::string next : {"new", "newer", "old"})
                        if (put(handle, "key", next) == PSS_OK) stored = next;
                    write_file(box / "stored", stored);
                    kill(getpid(), SIGKILL);
                });
                ASSERT_EQ(PSS_OK, open());
                EXPECT_EQ(read_file(box / "stored"), fetch(handle, "key"));
                EXPECT_EQ("unsettled", fetch(handle, "other"));
                ASSERT_EQ(PSS_OK, put(handle, "key", "old"));
                ASSERT_EQ(PSS_OK, pss2_close(handle));
            }
        }
    }
}

TEST_F(SqliteFaults, SettlingThatFailsIsTriedAgain) {
    for (const char* call : {"pwrite", "fdatasync", "ftruncate"}) {
        for (int after = 0; after < 4; ++after) {
            ASSERT_EQ(PSS_OK, open());
            ASSERT_EQ(PSS_OK, put(handle, "key", "first secret"));
            ASSERT_EQ(PSS_OK, put(handle, "key", "second"));
            fault = {call, after, EIO, true};
            const uint32_t status = pss2_settle();
            EXPECT_EQ(fault.happened && (after == 0 || strcmp(call, "pwrite") != 0) ? PSS_IO : PSS_OK, status)
                << call << " after " << after << ": a log that cannot be overwritten is cut off";
            EXPECT_EQ("second", fetch(handle, "key"));
            fault = {};
            EXPECT_EQ(PSS_OK, pss2_settle());
            EXPECT_FALSE(unflushed) << "a loss of power would bring the log back";
            for (const auto& [name, bytes] : files_in(box.state()))
                EXPECT_EQ(std::string::npos, bytes.find("first secret"))
                    << name << ", " << call << " after " << after;
            reopen();
            EXPECT_EQ("second", fetch(handle, "key"));
            pss2_close(handle);
        }
    }
}

TEST_F(SqliteFaults, SettlingThatIsCutShortIsTakenUpAgain) {
    constexpr char kSecret[] = "planted secret";
    for (int after = 0; after < 60; ++after) {
        const int end = in_child([&] {
            ASSERT_EQ(PSS_OK, open());
            for (unsigned i = 0; i < 60; ++i) {
                ASSERT_EQ(PSS_OK, put(handle, numbered("key", i), std::string(3000, 'v') + kSecret));
                ASSERT_EQ(PSS_OK, erase(handle, numbered("key", i)));
            }
            fault = {"pwrite", after, 0, false};
            pss2_settle();
        });
        ASSERT_EQ(PSS_OK, open());
        EXPECT_EQ(PSS_OK, pss2_settle());
        for (const auto& [name, bytes] : files_in(box.state()))
            EXPECT_EQ(std::string::npos, bytes.find(kSecret)) << name << " after " << after;
        pss2_close(handle);
        if (end == 0) return;
    }
    ADD_FAILURE() << "it was always cut short";
}

TEST_F(SqliteFaults, ACreationThatFailsCanBeRepeated) {
    for (const char* call : {"pwrite", "fdatasync", "ftruncate", "pread"}) {
        bool happened = true;
        for (int after = 0; happened && after < 50; ++after) {
            fault = {call, after, ENOSPC, true};
            const uint32_t status = open();
            happened = fault.happened;
            fault = {};
            SCOPED_TRACE(testing::Message() << call << " after " << after);
            if (status != PSS_OK) {
                EXPECT_TRUE(happened);
                EXPECT_EQ(0u, handle);
                ASSERT_EQ(PSS_OK, open());
            }
            EXPECT_EQ(PSS_OK, put(handle, "key", "value"));
            reopen();
            EXPECT_EQ("value", fetch(handle, "key"));
            pss2_close(handle);
            std::filesystem::remove_all(box.state());
        }
        EXPECT_FALSE(happened) << call << " was failed everywhere";
    }
}

TEST_F(SqliteFaults, AFailedReadIsAStatusAndPasses) {
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
