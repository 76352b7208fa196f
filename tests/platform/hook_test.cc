// Hooks: one after the other, not waited for, and not longer than their time.
#include "platform/hook.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

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
    const std::string slow =
        hook("slow", "umask >seen; env -u PWD -u OLDPWD | sort >>seen; sleep 0.5; mv seen ../first\n");
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

TEST_F(Hook, ThatHasNoKeeperIsNotStarted) {
    const std::string path = hook("none", "touch ran\n");
    for (const int forks : {0, 1}) {
        forks_left = forks;
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

}  // namespace
