// The files of the SQLite store: who may open what, what is refused and stays as it was.
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

constexpr uint32_t kVersion = 0x100001;

class SqliteFiles : public testing::Test {
 protected:
    ~SqliteFiles() override {
        for (uint32_t opened = 1; opened <= 16; ++opened) pss2_close(opened);
    }

    uint32_t open(uint32_t flags = PSS_READ_WRITE | PSS_CREATE, const std::string& name = "s",
                  uint32_t version = kVersion) {
        const uint32_t parameters[4] = {0, 0, 0, version};
        uint32_t status = 0x55;
        handle = pss2_open(name.c_str(), flags, 42, 0, parameters, &status);
        EXPECT_EQ(status == PSS_OK, handle != 0);
        return status;
    }

    // A closed store with one record; the version 0 is that of a store without a stamp.
    void make_store(uint32_t version = kVersion) {
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "value"));
        ASSERT_EQ(PSS_OK, pss_version_set(handle, 1, version));
        ASSERT_EQ(PSS_OK, pss2_close(handle));
    }

    // Behind the store's back.
    void as_sqlite(const char* statement) {
        sqlite3* database = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &database));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, statement, nullptr, nullptr, nullptr)) << statement;
        sqlite3_close(database);
    }

    Box box;
    const std::string file = box.state() + "/s.db";
    uint32_t handle = 0;
};

TEST_F(SqliteFiles, AreTheOwnersAloneWhateverTheMask) {
    const auto look = [&](mode_t mask) {
        umask(mask);
        ASSERT_EQ(PSS_OK, open());
        ASSERT_EQ(PSS_OK, put(handle, "key", "value"));
        EXPECT_EQ("0700", mode_of(box.state()));
        EXPECT_EQ("0600", mode_of(file));
        EXPECT_EQ("0600", mode_of(file + "-wal"));
    };
    for (const mode_t mask : {0u, 077u, 0777u}) {
        const int ended = in_child([&] { look(mask); });
        EXPECT_EQ(0, ended) << mask;
        std::filesystem::remove_all(box.state());
    }
}

TEST_F(SqliteFiles, NothingIsMadeWithoutTheCreateFlag) {
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    EXPECT_EQ("none", mode_of(box.state()));
    mkdir(box.state().c_str(), 0700);
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    EXPECT_TRUE(files_in(box.state()).empty());
    for (const uint32_t flags : {0u, 1u, 2u, 16u, 32u | 3u, 0xffffffffu})
        EXPECT_EQ(PSS_BAD_ARGUMENT, open(flags)) << flags;
    EXPECT_EQ(PSS_OK, open());
}

TEST_F(SqliteFiles, FoldersThatWillNotDo) {
    const std::string state = box.state();
    setenv("QUILL_STATE_DIR", (box / "missing/state").c_str(), 1);
    EXPECT_EQ(PSS_MISSING, open());
    setenv("QUILL_STATE_DIR", "state", 1);
    EXPECT_EQ(PSS_BAD_ARGUMENT, open()) << "relative";

    setenv("QUILL_STATE_DIR", state.c_str(), 1);
    write_file(state, "a file");
    EXPECT_EQ(PSS_MISSING, open());
    unlink(state.c_str());

    for (const mode_t mode : {0755, 0710, 0701, 0770}) {
        mkdir(state.c_str(), 0700);
        chmod(state.c_str(), mode);
        EXPECT_EQ(PSS_UNSAFE, open()) << "open to others";
        EXPECT_EQ(mode, strtoul(mode_of(state).c_str(), nullptr, 8)) << "left as it is";
        EXPECT_EQ(0, rmdir(state.c_str())) << "nothing was put there";
    }
    if (geteuid() != 0) GTEST_SKIP() << "only root gives folders away";
    mkdir(state.c_str(), 0700);
    ASSERT_EQ(0, chown(state.c_str(), 65534, 65534));
    EXPECT_EQ(PSS_UNSAFE, open()) << "of another user";
}

TEST_F(SqliteFiles, ALooseFileIsTightened) {
    make_store();
    chmod(file.c_str(), 0644);
    EXPECT_EQ(PSS_OK, open());
    EXPECT_EQ("0600", mode_of(file));
    pss2_close(handle);
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    ASSERT_EQ(0, chown(file.c_str(), 65534, 65534));
    EXPECT_EQ(PSS_UNSAFE, open());
}

TEST_F(SqliteFiles, NamesThatLeadElsewhereAreRefused) {
    for (const std::string& name :
         {std::string(), std::string(".."), std::string("."), std::string(".hidden"), std::string("../s"),
          std::string("a/b"), std::string("/etc/s"), std::string("a b"), std::string("s\n"),
          std::string("\xc3\xa4"), std::string(65, 'n')})
        EXPECT_EQ(PSS_BAD_ARGUMENT, open(PSS_READ_WRITE | PSS_CREATE, name)) << name;
    EXPECT_EQ("none", mode_of(box.state()));
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE | PSS_CREATE, std::string(64, 'n')));
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE | PSS_CREATE, "A-z_0.9"));
}

TEST_F(SqliteFiles, OneOpenAtATime) {
    make_store();
    // Another process, born before this one holds anything. For each pair of bytes it opens the store, tells
    // how that went, and closes it at the second.
    int orders[2], answers[2];
    ASSERT_TRUE(pipe(orders) == 0 && pipe(answers) == 0);
    const pid_t other = start_child([&] {
        for (char byte; read(orders[0], &byte, 1) == 1; pss2_close(handle)) {
            const uint32_t status = open();
            if (write(answers[1], &status, sizeof status) < 0 || read(orders[0], &byte, 1) != 1) break;
        }
    });
    const auto tell_other = [&] { EXPECT_EQ(1, write(orders[1], "", 1)); };
    const auto opened_by_other = [&] {
        tell_other();
        uint32_t status = 0x55;
        EXPECT_EQ(4, read(answers[0], &status, sizeof status));
        return status;
    };
    EXPECT_EQ(PSS_OK, opened_by_other());
    EXPECT_EQ(PSS_IN_USE, open()) << "by another process";
    tell_other();
    while (open() == PSS_IN_USE) sleep_for(0.001);
    const uint32_t first = handle;
    EXPECT_EQ(PSS_IN_USE, open()) << "by another handle";
    EXPECT_EQ(PSS_IN_USE, opened_by_other()) << "the attempt has not loosened the lock";
    EXPECT_EQ("value", fetch(first, "key"));
    EXPECT_EQ(PSS_OK, pss2_close(first));
    EXPECT_EQ(PSS_OK, open());
    kill(other, SIGKILL);
    wait_for(other);
    for (const int end : {orders[0], orders[1], answers[0], answers[1]}) close(end);
}

TEST_F(SqliteFiles, StoresDoNotShareHandlesBytesOrRecords) {
    for (unsigned i = 1; i <= 16; ++i) {
        ASSERT_EQ(PSS_OK, open(PSS_READ_WRITE | PSS_CREATE, numbered("s", i)));
        ASSERT_EQ(i, handle);
        put(handle, "key", numbered("of ", i));
    }
    EXPECT_EQ(PSS_NO_FILES, open(PSS_READ_WRITE | PSS_CREATE, "s17"));
    const std::string name = "key";
    const pss_descriptor key = describe(name);
    uint32_t status = 0;
    const pss_descriptor* found = pss2_fetch(1, &key, &status);
    EXPECT_EQ("of 2", fetch(2, name));
    EXPECT_EQ("of 1", bytes_of(found)) << "valid until the next call on its own handle";
    EXPECT_EQ(PSS_OK, pss2_close(3));
    EXPECT_EQ(PSS_BAD_HANDLE, pss2_close(3));
    EXPECT_EQ("[40480001]", fetch(3, name));
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s3"));
    EXPECT_EQ("of 3", fetch(handle, name));
}

TEST_F(SqliteFiles, KeysAndValuesOutOfBounds) {
    ASSERT_EQ(PSS_OK, open());
    const pss_descriptor nothing{nullptr, 5};
    uint32_t status = 0;
    EXPECT_EQ(PSS_BAD_ARGUMENT, put(handle, "", "v"));
    EXPECT_EQ(PSS_BAD_ARGUMENT, put(handle, std::string(PSS_MAX_KEY + 1, 'k'), "v"));
    EXPECT_EQ(PSS_BAD_ARGUMENT, put(handle, "k", std::string(PSS_MAX_VALUE + 1, 'v')));
    EXPECT_EQ(PSS_BAD_ARGUMENT, erase(handle, ""));
    EXPECT_EQ("[40480002]", fetch(handle, ""));
    EXPECT_EQ(nullptr, pss2_fetch(handle, &nothing, &status));
    EXPECT_EQ(PSS_BAD_ARGUMENT, status);
    EXPECT_EQ(PSS_BAD_ARGUMENT, pss2_store(handle, nullptr, nullptr));
    EXPECT_EQ(PSS_BAD_ARGUMENT, pss2_move2key(&handle, PSS_MODE, &nothing, &status));
}

// Whatever stands under the store's name and is none: refused, with and without the create flag, and every
// byte of the folder stays.
TEST_F(SqliteFiles, WhatIsNoStoreIsLeftAsItIs) {
    const auto make_foreign = [this] {
        as_sqlite(
            "PRAGMA journal_mode=WAL; CREATE TABLE record(key BLOB, value BLOB);"
            "INSERT INTO record VALUES('k', 'v')");
    };
    const struct {
        const char* what;
        std::function<void()> make;
    } cases[] = {
        {"a database of another program", make_foreign},
        {"text", [this] { write_file(file, "user=admin\n", 0644); }},
        {"nothing at all", [this] { write_file(file, ""); }},
        {"a header cut short", [this] { write_file(file, std::string("SQLite format 3\0", 16)); }},
        {"a folder", [this] { mkdir(file.c_str(), 0700); }},
        {"a pipe", [this] { mkfifo(file.c_str(), 0600); }},
        {"a link to a store",
         [this] {
             make_store();
             rename(file.c_str(), (box / "target").c_str());
             ASSERT_EQ(0, symlink((box / "target").c_str(), file.c_str()));
         }},
        {"a link to nothing", [this] { ASSERT_EQ(0, symlink((box / "nothing").c_str(), file.c_str())); }},
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

TEST_F(SqliteFiles, VersionStamps) {
    make_store(0);
    EXPECT_EQ(PSS_OK, open()) << "never stamped";
    EXPECT_EQ(PSS_BAD_ARGUMENT, pss_version_set(handle, 2, kVersion));
    EXPECT_EQ(PSS_OK, pss_version_set(handle, 1, 0xfffffffe));
    pss2_close(handle);
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s", 0xfffffffe)) << "all 32 bits are kept";
    pss2_close(handle);

    // One record is in its log alone.
    in_child([&] {
        open(PSS_READ_WRITE, "s", 0xfffffffe);
        put(handle, "late", "in the log");
        kill(getpid(), SIGKILL);
    });
    const auto before = files_in(box.state());
    EXPECT_EQ(2u, before.size());
    EXPECT_EQ(PSS_WRONG_VERSION, open());
    EXPECT_EQ(PSS_WRONG_VERSION, open(PSS_READ_WRITE));
    EXPECT_TRUE(before == files_in(box.state())) << "left as it is";
    EXPECT_EQ(PSS_OK, open(PSS_READ_WRITE, "s", 0xfffffffe));
    EXPECT_EQ("value", fetch(handle, "key"));
    EXPECT_EQ("in the log", fetch(handle, "late"));
}

TEST_F(SqliteFiles, ACopyWithoutALogGetsOneAgain) {
    make_store();
    as_sqlite("PRAGMA journal_mode=DELETE");
    EXPECT_EQ(PSS_OK, open());
    EXPECT_EQ(PSS_OK, put(handle, "key", "other"));
    EXPECT_EQ("0600", mode_of(file + "-wal"));
    EXPECT_EQ("none", mode_of(file + "-journal"));
}

// Of key and value together; of "123456789" it is the CRC's published check value.
TEST_F(SqliteFiles, SumsAreCrc32AsInEveryStoreSoFar) {
    make_store();
    as_sqlite("INSERT INTO record VALUES(CAST('1234' AS BLOB), CAST('56789' AS BLOB), 0xCBF43926)");
    EXPECT_EQ(PSS_OK, open());
    EXPECT_EQ("56789", fetch(handle, "1234"));
}

TEST_F(SqliteFiles, ACreationThatWasInterruptedStartsOver) {
    mkdir(box.state().c_str(), 0700);
    for (const char* suffix : {"", "-journal", "-wal"})
        write_file(file + ".new" + suffix, "half of it", 0644);
    EXPECT_EQ(PSS_NO_STORE, open(PSS_READ_WRITE));
    ASSERT_EQ(PSS_OK, open());
    EXPECT_EQ(PSS_OK, put(handle, "key", "value"));
    pss2_close(handle);
    EXPECT_EQ(1u, files_in(box.state()).size()) << "nothing is left over";
}

TEST_F(SqliteFiles, ProcessesThatCreateAtOnceGetOneWholeStore) {
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

// What a call handed out stays valid until the next one, which may be given it.
TEST_F(SqliteFiles, WhatWasHandedOutMayBeHandedIn) {
    ASSERT_EQ(PSS_OK, open());
    put(handle, "first", "second");
    put(handle, "second", std::string(300, 'v'));
    const std::string first = "first";
    const pss_descriptor key = describe(first);
    for (int round = 0; round < 2; ++round) {
        uint32_t status = 0x55;
        const pss_descriptor handed_out = *pss2_fetch(handle, &key, &status);
        EXPECT_EQ(std::string(300, 'v'), bytes_of(pss2_fetch(handle, &handed_out, &status)));
        const pss_descriptor value = *pss2_fetch(handle, &key, &status);
        EXPECT_EQ(PSS_OK, pss2_store(handle, &key, &value));
        EXPECT_EQ("second", fetch(handle, "first"));
        put(handle, "first", "second");
    }
    pss2_close(handle);
}

// A value whose bytes are others than were stored is not handed out, and the walk goes on behind it.
TEST_F(SqliteFiles, ADamagedRecordIsAStatusAndNoEnd) {
    ASSERT_EQ(PSS_OK, open());
    for (const std::string name : {"a", "b", "c"}) ASSERT_EQ(PSS_OK, put(handle, name, "value of " + name));
    pss2_close(handle);
    std::string bytes = read_file(file);
    bytes.replace(bytes.find("value of b"), 5, "VALUE");
    write_file(file, bytes);

    ASSERT_EQ(PSS_OK, open());
    EXPECT_EQ("[4048000d]", fetch(handle, "b"));
    uint32_t at = handle, status = 0x55;
    const std::string start = "a";
    const pss_descriptor key = describe(start);
    ASSERT_EQ(PSS_OK, pss2_move2key(&at, PSS_MODE, &key, &status));
    for (const std::string name : {"b", "c"}) {
        EXPECT_EQ(PSS_OK, pss2_move2location(&at, PSS_MODE, PSS_NEXT, &status));
        EXPECT_EQ(name, bytes_of(pss2_getkey(at, &status)));
        EXPECT_EQ(name == "b" ? "(null)" : "value of c", bytes_of(pss2_getvalue(at, &status)));
        EXPECT_EQ(name == "b" ? PSS_CORRUPT : PSS_OK, status);
    }
    EXPECT_EQ(PSS_OK, put(handle, "b", "anew"));
    EXPECT_EQ("anew", fetch(handle, "b"));
    pss2_close(handle);
}

// Damage wherever it is: statuses, never a crash, and never a value that was not stored.
TEST_F(SqliteFiles, DamageIsAStatus) {
    ASSERT_EQ(PSS_OK, open());
    constexpr unsigned kRecords = 150;
    const auto value_of = [](unsigned i) {
        return std::string(100 + 13 * i, static_cast<char>('a' + i % 26));
    };
    for (unsigned i = 0; i < kRecords; ++i) ASSERT_EQ(PSS_OK, put(handle, numbered("key", i), value_of(i)));
    pss2_close(handle);
    const std::string whole = read_file(file);
    ASSERT_GT(whole.size(), 10 * 4096u);

    int opened = 0, readable = 0;
    const auto look = [&](const std::string& bytes) {
        write_file(file, bytes);
        const uint32_t status = open();
        if (status != PSS_OK) {
            EXPECT_TRUE(status == PSS_CORRUPT || status == PSS_NOT_A_STORE || status == PSS_ENGINE)
                << std::hex << status;
            return;
        }
        ++opened;
        for (unsigned i = 0; i < kRecords; ++i) {
            const std::string found = fetch(handle, numbered("key", i));
            readable += found == value_of(i);
            EXPECT_TRUE(found == value_of(i) || found[0] == '[') << i;
        }
        put(handle, "key", "value");
        const std::string start = "k";
        const pss_descriptor key = describe(start);
        uint32_t at = handle, answer = 0;
        pss2_move2key(&at, PSS_MODE, &key, &answer);
        for (unsigned i = 0; i <= kRecords && (i == 0 || answer == PSS_OK); ++i)
            pss2_move2location(&at, PSS_MODE, PSS_NEXT, &answer);
        pss2_close(handle);
    };
    for (size_t length = 100; length < whole.size(); length += 4096 + 500) look(whole.substr(0, length));
    for (size_t page = 0; page < whole.size(); page += 4096) {
        for (const size_t offset : {0u, 3u, 8u, 30u}) {
            std::string bytes = whole;
            for (size_t i = page + (page == 0 ? 100 : 0) + offset, end = i + 20; i < end; ++i)
                bytes[i] = static_cast<char>(0xff - i % 3);
            look(bytes);
        }
    }
    EXPECT_GT(opened, 20);
    EXPECT_GT(readable, opened * static_cast<int>(kRecords) / 2) << "what is readable stays readable";
}

}  // namespace
