// The files of the SQLite store: their modes, which are opened, and which are refused and left unchanged.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <vector>

#include "tests/support/box.h"
#include "tests/support/process.h"
#include "tests/support/store.h"

namespace {

constexpr uint32_t kVersion = 0x100001, kCreate = PSS_READ_WRITE | PSS_CREATE;

class SqliteFiles : public testing::Test {
 protected:
    ~SqliteFiles() override {
        for (uint32_t opened = 1; opened <= 16; ++opened) pss2_close(opened);
    }

    uint32_t open(uint32_t flags = kCreate, const std::string& name = "s", uint32_t version = kVersion) {
        const uint32_t status = open_store(handle, name, flags, version);
        EXPECT_EQ(status == PSS_OK, handle != 0);
        return status;
    }

    // Creates and closes a store with one record. A store without a version has version 0.
    void make_store(uint32_t version = kVersion) {
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "value"));
        ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, version));
        ASSERT_EQ(PSS_OK, pss2_close(handle));
    }

    // Changes the file with SQLite, without the store.
    void run_sql(const char* statement) {
        sqlite3* database = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &database));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, statement, nullptr, nullptr, nullptr)) << statement;
        sqlite3_close(database);
    }

    Box box;
    const std::string file = box.state() + "/s.db";
    uint32_t handle = 0;
};

TEST_F(SqliteFiles, AreReadableByTheOwnerOnlyWhateverTheUmask) {
    const auto check = [&](mode_t mask) {
        umask(mask);
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "value"));
        EXPECT_EQ("0700", mode_of(box.state()));
        EXPECT_EQ("0600", mode_of(file));
        EXPECT_EQ("0600", mode_of(file + "-wal"));
    };
    for (const mode_t mask : {0u, 077u, 0777u}) {
        const int ended = in_child([&] { check(mask); });
        EXPECT_EQ(0, ended) << mask;
        std::filesystem::remove_all(box.state());
    }
}

TEST_F(SqliteFiles, NothingIsCreatedWithoutTheFlag) {
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    EXPECT_EQ("none", mode_of(box.state()));
    mkdir(box.state().c_str(), 0700);
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    EXPECT_TRUE(files_in(box.state()).empty());
    for (const uint32_t flags : {0u, 1u, 2u, 16u, 32u | 3u, 0xffffffffu})
        EXPECT_EQ(PSS_BAD_ARGUMENT, open(flags)) << flags;
    EXPECT_EQ(PSS_OK, open());
}

TEST_F(SqliteFiles, UnsuitableFolders) {
    const std::string state = box.state();
    for (const auto& [path, want] :
         {std::pair{box / "missing/state", PSS_MISSING}, {"state", PSS_BAD_ARGUMENT}}) {
        setenv("QUILL_STATE_DIR", path.c_str(), 1);
        EXPECT_EQ(want, open()) << path;
    }
    setenv("QUILL_STATE_DIR", state.c_str(), 1);
    write_file(state, "a file");
    EXPECT_EQ(PSS_MISSING, open());
    unlink(state.c_str());
    for (const mode_t mode : {0755, 0710, 0701, 0770}) {
        mkdir(state.c_str(), 0700);
        chmod(state.c_str(), mode);
        EXPECT_EQ(PSS_UNSAFE, open()) << "open to others";
        EXPECT_EQ(mode, strtoul(mode_of(state).c_str(), nullptr, 8)) << "unchanged";
        EXPECT_EQ(0, rmdir(state.c_str())) << "still empty";
    }
    if (geteuid() != 0) GTEST_SKIP() << "only root can change owners";
    mkdir(state.c_str(), 0700);
    ASSERT_EQ(0, chown(state.c_str(), 65534, 65534));
    EXPECT_EQ(PSS_UNSAFE, open()) << "of another user";
}

TEST_F(SqliteFiles, AFileOpenToOthersIsClosedToThem) {
    make_store();
    chmod(file.c_str(), 0644);
    EXPECT_EQ(PSS_OK, open());
    EXPECT_EQ("0600", mode_of(file));
    pss2_close(handle);
    if (geteuid() != 0) GTEST_SKIP() << "only root can change owners";
    ASSERT_EQ(0, chown(file.c_str(), 65534, 65534));
    EXPECT_EQ(PSS_UNSAFE, open());
}

TEST_F(SqliteFiles, InvalidNamesAreRefused) {
    const std::string longest(64, 'n'), longer = longest + "n";
    for (const char* name :
         {"", "..", ".", ".hidden", "../s", "a/b", "/etc/s", "a b", "s\n", "\xc3\xa4", longer.c_str()})
        EXPECT_EQ(PSS_BAD_ARGUMENT, open(kCreate, name)) << name;
    EXPECT_EQ("none", mode_of(box.state()));
    EXPECT_EQ(PSS_OK, open(kCreate, longest));
    EXPECT_EQ(PSS_OK, open(kCreate, "A-z_0.9"));
}

TEST_F(SqliteFiles, OnlyOneProcessAndHandleOpensAStore) {
    make_store();
    // Another process opens the store for each first byte that it receives, and closes it for each second.
    int orders[2], results[2];
    ASSERT_TRUE(pipe(orders) == 0 && pipe(results) == 0);
    const pid_t other = start_child([&] {
        for (char byte; read(orders[0], &byte, 1) == 1; pss2_close(handle)) {
            const uint32_t status = open();
            if (write(results[1], &status, sizeof status) < 0 || read(orders[0], &byte, 1) != 1) break;
        }
    });
    const auto tell_other = [&] { EXPECT_EQ(1, write(orders[1], "", 1)); };
    const auto opened_by_other = [&] {
        tell_other();
        uint32_t status = 0x55;
        EXPECT_EQ(4, read(results[0], &status, sizeof status));
        return status;
    };
    EXPECT_EQ(PSS_OK, opened_by_other());
    EXPECT_EQ(PSS_IN_USE, open()) << "by another process";
    tell_other();
    while (open() == PSS_IN_USE) sleep_for(0.001);
    const uint32_t first = handle;
    EXPECT_EQ(PSS_IN_USE, open()) << "by another handle";
    EXPECT_EQ(PSS_IN_USE, opened_by_other()) << "the second attempt has not released the lock";
    EXPECT_EQ("value", fetch(first, "key"));
    EXPECT_EQ(PSS_OK, pss2_close(first));
    EXPECT_EQ(PSS_OK, open());
    kill(other, SIGKILL);
    wait_for(other);
}

TEST_F(SqliteFiles, StoresDoNotShareHandlesBytesOrRecords) {
    for (unsigned i = 1; i <= 16; ++i) {
        ASSERT_EQ(PSS_OK, open(kCreate, numbered("s", i)));
        ASSERT_EQ(i, handle);
        ASSERT_EQ(PSS_OK, put(handle, "key", numbered("of ", i)));
    }
    EXPECT_EQ(PSS_NO_FILES, open(kCreate, "s17"));
    const std::string name = "key";
    const pss_descriptor key = describe(name);
    uint32_t status = 0;
    const pss_descriptor* found = pss2_fetch(1, &key, &status);
    EXPECT_EQ("of 2", fetch(2, name));
    EXPECT_EQ("of 1", bytes_of(found)) << "valid until the next call on the same handle";
    EXPECT_EQ(PSS_OK, pss2_close(3));
    EXPECT_EQ(PSS_BAD_HANDLE, pss2_close(3));
    EXPECT_EQ("[40480001]", fetch(3, name));
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s3"));
    EXPECT_EQ("of 3", fetch(handle, name));
}

TEST_F(SqliteFiles, InvalidKeysAndValues) {
    ASSERT_EQ(PSS_OK, open());
    const pss_descriptor nothing{nullptr, 5};
    uint32_t status = 0;
    for (const uint32_t got :
         {put(handle, "", "v"), put(handle, std::string(PSS_MAX_KEY + 1, 'k'), "v"), erase(handle, ""),
          put(handle, "k", std::string(PSS_MAX_VALUE + 1, 'v')), pss2_store(handle, nullptr, nullptr),
          pss2_move2key(&handle, PSS_MODE, &nothing, &status)})
        EXPECT_EQ(PSS_BAD_ARGUMENT, got);
    EXPECT_EQ("[40480002]", fetch(handle, ""));
    EXPECT_EQ(nullptr, pss2_fetch(handle, &nothing, &status));
    EXPECT_EQ(PSS_BAD_ARGUMENT, status);
}

// With and without the create flag.
TEST_F(SqliteFiles, AnythingButAStoreIsRefusedAndLeftUnchanged) {
    const struct {
        const char* what;
        std::function<void()> make;
    } cases[] = {
        {"a database of another program",
         [this] { run_sql("PRAGMA journal_mode=WAL; CREATE TABLE record(key BLOB, value BLOB)"); }},
        {"text", [this] { write_file(file, "user=admin\n", 0644); }},
        {"an empty file", [this] { write_file(file, ""); }},
        {"a truncated header", [this] { write_file(file, std::string("SQLite format 3\0", 16)); }},
        {"a folder", [this] { mkdir(file.c_str(), 0700); }},
        {"a pipe", [this] { mkfifo(file.c_str(), 0600); }},
        {"a link to a store",
         [this] {
             make_store();
             rename(file.c_str(), (box / "target").c_str());
             ASSERT_EQ(0, symlink((box / "target").c_str(), file.c_str()));
         }},
        {"a dangling link", [this] { ASSERT_EQ(0, symlink((box / "nothing").c_str(), file.c_str())); }},
    };
    for (const auto& c : cases) {
        mkdir(box.state().c_str(), 0700);
        c.make();
        const auto before = files_in(box.state());
        const std::string mode = mode_of(file), target = read_file(box / "target");
        EXPECT_EQ(PSS_NOT_A_STORE, open(PSS_READ_WRITE)) << c.what;
        EXPECT_EQ(PSS_NOT_A_STORE, open()) << c.what;
        EXPECT_TRUE(before == files_in(box.state())) << c.what;
        EXPECT_EQ(mode, mode_of(file)) << c.what;
        EXPECT_TRUE(target == read_file(box / "target")) << c.what;
        EXPECT_EQ("none", mode_of(box / "nothing")) << c.what;
        std::filesystem::remove_all(box.state());
    }
}

TEST_F(SqliteFiles, Versions) {
    make_store(0);
    EXPECT_EQ(PSS_OK, open()) << "without a version";
    EXPECT_EQ(PSS_BAD_ARGUMENT, pss_version_set(handle, 2, kVersion));
    EXPECT_EQ(PSS_OK, pss_version_set(handle, 1, 0xfffffffe));
    pss2_close(handle);
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s", 0xfffffffe)) << "all 32 bits are stored";
    pss2_close(handle);

    // One record is only in the write-ahead log.
    in_child([&] {
        open(PSS_READ_WRITE, "s", 0xfffffffe);
        put(handle, "late", "in the log");
        kill(getpid(), SIGKILL);
    });
    const auto before = files_in(box.state());
    EXPECT_EQ(2u, before.size());
    EXPECT_EQ(PSS_WRONG_VERSION, open());
    EXPECT_EQ(PSS_WRONG_VERSION, open(PSS_READ_WRITE));
    EXPECT_TRUE(before == files_in(box.state())) << "unchanged";
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s", 0xfffffffe));
    EXPECT_EQ("value", fetch(handle, "key"));
    EXPECT_EQ("in the log", fetch(handle, "late"));
}

TEST_F(SqliteFiles, AStoreChangedWithSqlite) {
    make_store();
    run_sql("PRAGMA journal_mode=DELETE");
    // The published check value of CRC-32 for "123456789": the checksum is that of the key followed by the
    // value.
    run_sql("INSERT INTO record VALUES(CAST('1234' AS BLOB), CAST('56789' AS BLOB), 0xCBF43926)");
    EXPECT_EQ(PSS_OK, open());
    EXPECT_EQ("56789", fetch(handle, "1234"));
    EXPECT_EQ(PSS_OK, put(handle, "key", "other"));
    EXPECT_EQ("0600", mode_of(file + "-wal")) << "changed to WAL";
    EXPECT_EQ("none", mode_of(file + "-journal"));
}

TEST_F(SqliteFiles, AnInterruptedCreationIsRepeated) {
    mkdir(box.state().c_str(), 0700);
    for (const char* suffix : {"", "-journal", "-wal"})
        write_file(file + ".new" + suffix, "half of it", 0644);
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    ASSERT_EQ(PSS_OK, open());
    EXPECT_EQ(PSS_OK, put(handle, "key", "value"));
    pss2_close(handle);
    EXPECT_EQ(1u, files_in(box.state()).size()) << "only the store";
}

TEST_F(SqliteFiles, ConcurrentCreationsYieldOneStore) {
    mkdir(box.state().c_str(), 0700);
    for (int round = 0; round < 20; ++round) {
        std::vector<pid_t> others;
        for (int i = 0; i < 4; ++i)
            others.push_back(start_child([&] {
                uint32_t status;
                while ((status = open()) == PSS_IN_USE) sleep_for(0.001);
                EXPECT_EQ(PSS_OK, status);
                EXPECT_EQ(PSS_OK, put(handle, std::to_string(getpid()), "value"));
                pss2_close(handle);
            }));
        for (const pid_t other : others) EXPECT_EQ(0, wait_for(other));
        ASSERT_EQ(PSS_OK, open(PSS_READ_WRITE));
        for (const pid_t other : others) EXPECT_EQ("value", fetch(handle, std::to_string(other)));
        pss2_close(handle);
        unlink(file.c_str());
    }
}

// Returned bytes are valid until the next call has ended.
TEST_F(SqliteFiles, ReturnedBytesCanBeArgumentsOfTheNextCall) {
    ASSERT_EQ(PSS_OK, open());
    put(handle, "first", "second");
    put(handle, "second", std::string(300, 'v'));
    const std::string first = "first";
    const pss_descriptor key = describe(first);
    uint32_t status = 0x55;
    for (int round = 0; round < 2; ++round) {
        const pss_descriptor returned = *pss2_fetch(handle, &key, &status);
        EXPECT_EQ(std::string(300, 'v'), bytes_of(pss2_fetch(handle, &returned, &status)));
        const pss_descriptor value = *pss2_fetch(handle, &key, &status);
        EXPECT_EQ(PSS_OK, pss2_store(handle, &key, &value));
        EXPECT_EQ("second", fetch(handle, "first"));
        put(handle, "first", "second");
    }
}

// A damaged value is never returned, and the cursor moves on past it.
TEST_F(SqliteFiles, ADamagedValueIsReported) {
    ASSERT_EQ(PSS_OK, open());
    for (const std::string name : {"a", "b", "c"}) ASSERT_EQ(PSS_OK, put(handle, name, "value of " + name));
    pss2_close(handle);
    std::string bytes = read_file(file);
    bytes.replace(bytes.find("value of b"), 5, "VALUE");
    write_file(file, bytes);

    ASSERT_EQ(PSS_OK, open());
    EXPECT_EQ("[4048000d]", fetch(handle, "b"));
    const Cursor cursor{handle};
    EXPECT_EQ("at a=value of a", cursor.move("a"));
    EXPECT_EQ("b damaged", cursor.next());
    EXPECT_EQ("c=value of c", cursor.next());
    for (int i = 0; i < 2; ++i)  // by a search, and where the cursor is already
        EXPECT_EQ("at b damaged", cursor.move("b"));
    EXPECT_EQ(PSS_OK, put(handle, "b", "anew"));
    EXPECT_EQ("anew", fetch(handle, "b"));
    pss2_close(handle);
}

}  // namespace
