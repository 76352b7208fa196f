// Hooks: one after the other, not waited for, and killed at their limit; and the child processes below them.
#include "platform/hook.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "base/file.h"
#include "base/process.h"
#include "tests/support/box.h"
#include "tests/support/process.h"

namespace {

int forks_left = -1;  // without a bound

}  // namespace

pid_t fork() noexcept {
    if (forks_left-- != 0) return _Fork();
    errno = EAGAIN;
    return -1;
}

namespace {

class Hook : public testing::Test {
 protected:
    Hook() { mkdir(box.run().c_str(), 0700); }

    // A shell script; it finds the box in $1.
    std::string hook(const std::string& name, const std::string& script) {
        write_file(box / name, "#!/bin/sh\ncd \"$1\"\n" + script, 0700);
        return box / name;
    }
    bool comes(const std::string& name) {
        for (int i = 0; i < 1000 && !std::filesystem::exists(box / name); ++i) sleep_for(0.01);
        return std::filesystem::exists(box / name);
    }

    Box box;
};

TEST_F(Hook, RunsInTurnWithoutAShellBetween) {
    const std::string argument = box / "$(touch no) `touch no`; touch no";
    mkdir(argument.c_str(), 0700);
    const std::string slow = hook(
        "slow", "umask >seen; env -u PWD -u OLDPWD | sort >>seen; sleep 20 & sleep 0.5; mv seen ../first\n");
    const std::string quick = hook("quick", "if [ -e first ]; then touch second; else touch early; fi\n");
    EXPECT_TRUE(quill::start_hook(slow, argument));
    EXPECT_TRUE(comes(argument.substr(argument.rfind('/') + 1) + "/seen"));
    EXPECT_TRUE(quill::start_hook(quick, box / ""));
    EXPECT_FALSE(std::filesystem::exists(box / "first")) << "it was waited for";
    EXPECT_TRUE(comes("second"));
    EXPECT_FALSE(std::filesystem::exists(box / "early"));
    const std::string seen = read_file(box / "first");
    EXPECT_EQ("0022\nLC_ALL=C\nPATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n", seen);
}

// One runs, one waits, and the one that waits does not outlive the daemon.
TEST_F(Hook, DoesNotQueue) {
    const std::string slow = hook("slow", "echo ran >>ran; while [ ! -e go ]; do sleep 0.02; done\n");
    const auto supervisors = [this] {
        namespace fs = std::filesystem;
        int count = 0;
        std::error_code gone;
        for (const auto& process : fs::directory_iterator("/proc"))
            for (const auto& file : fs::directory_iterator(process.path() / "fd", gone))
                count += fs::read_symlink(file, gone) == box.run() + "/hooks.lock";
        return count;
    };
    const auto come_down_to = [&](int count) {
        for (int i = 0; i < 300 && supervisors() > count; ++i) sleep_for(0.01);
        EXPECT_EQ(count, supervisors());
    };
    const auto start_often = [&] {
        for (int i = 0; i < 40; ++i) EXPECT_TRUE(quill::start_hook(slow, box / ""));
        EXPECT_TRUE(comes("ran"));
        EXPECT_TRUE(quill::start_hook(slow, box / "")) << "the one that waits";
        EXPECT_GE(2, supervisors());
    };
    const auto come_to_an_end = [&] {
        write_file(box / "go", "");
        come_down_to(0);
        std::filesystem::remove(box / "go");
    };
    start_often();
    come_to_an_end();
    EXPECT_EQ("ran\nran\n", read_file(box / "ran"));
    std::filesystem::remove(box / "ran");
    EXPECT_EQ(0, in_child(start_often));
    come_down_to(1);
    come_to_an_end();
    EXPECT_EQ("ran\n", read_file(box / "ran"));
}

TEST_F(Hook, WithoutASupervisorIsNotStarted) {
    const std::string path = hook("none", "touch ran\n");
    for (const int forks : {0, 1}) {
        forks_left = forks;
        errno = 0;
        EXPECT_FALSE(quill::start_hook(path, box / "")) << forks;
        EXPECT_EQ(EAGAIN, errno);
    }
    forks_left = -1;
}

TEST_F(Hook, EndsWithAllItStartedWhenTheTimeIsUp) {
    const std::string stuck = hook("stuck", "touch started; (sleep 3; touch late) & yes & sleep 100\n");
    EXPECT_TRUE(quill::start_hook(stuck, box / "", std::chrono::seconds(1)));
    EXPECT_TRUE(comes("started"));
    EXPECT_TRUE(quill::start_hook(hook("next", "touch next-ran\n"), box / ""));
    EXPECT_TRUE(comes("next-ran"));
    sleep_for(2.5);
    EXPECT_FALSE(std::filesystem::exists(box / "late"));
}

TEST_F(Hook, FilesAreReplacedAsAWhole) {
    write_file(box / "file", "old");
    write_file(box / "file.new", "of a daemon that was killed");
    EXPECT_TRUE(quill::write_file(box / "file", "new", 0640));
    EXPECT_FALSE(quill::write_file(box / "none/file", "new", 0640));
    mkdir((box / "folder").c_str(), 0700);
    EXPECT_FALSE(quill::write_file(box / "folder", "new", 0640));
    EXPECT_EQ("0640", mode_of(box / "file"));
    EXPECT_EQ((std::map<std::string, std::string>{{"file", "new"}}), files_in(box / ""));
}

TEST(Children, EndAtTheirDeadline) {
    const auto run = [](const char* script) {
        return quill::run_program({.words = {"/bin/sh", "-c", script}, .most_output = 3},
                                  quill::after(std::chrono::milliseconds(500)));
    };
    const quill::ProgramResult late = run("echo 12345 >&2; sleep 10"), killed = run("kill $$");
    EXPECT_EQ(128 + SIGKILL, late.code);
    EXPECT_TRUE(late.timed_out);
    EXPECT_EQ("123", late.output);
    EXPECT_EQ(128 + SIGTERM, killed.code);
    EXPECT_FALSE(killed.timed_out);
}

TEST(Children, ThatNobodyWaitsForAreReapedLater) {
    {
        const quill::Child left = quill::Child::call([] { return 0; });
    }
    sleep_for(0.2);
    EXPECT_TRUE(quill::run_program({.words = {"/bin/true"}}, quill::kNever).ok());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a zombie is left";
}

TEST(Children, HoldALockAsLongAsTheyRun) {
    const Box box;
    const auto open_lock = [&] { return quill::Descriptor(quill::open_lock_file(box / "lock")); };
    quill::Child child;
    {
        const quill::Descriptor lock = open_lock();
        EXPECT_EQ(0, flock(lock.get(), LOCK_EX));
        child = quill::Child::run({.words = {"/bin/sleep", "1"}, .held = lock.get()});
    }
    sleep_for(0.3);
    const quill::Descriptor lock = open_lock();
    EXPECT_EQ(-1, flock(lock.get(), LOCK_EX | LOCK_NB));
    EXPECT_TRUE(child.wait(quill::kNever));
    EXPECT_EQ(0, flock(lock.get(), LOCK_EX | LOCK_NB));
}

}  // namespace
