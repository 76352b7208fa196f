#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/library/accounts/account_files.h"
#include "tests/support/process.h"

namespace {

// Number of sleeps skipped, to test the limit of 150 seconds; -1: sleep.
int steps_left_out = -1;
int steps_of_wrong_length = 0;

}  // namespace

// Replaces the C library's function.
extern "C" int select(int, fd_set*, fd_set*, fd_set*, timeval* time) {
    if (time->tv_sec != 0 || time->tv_usec != 25000) ++steps_of_wrong_length;
    time->tv_usec = 1;  // the real one may modify it
    if (steps_left_out >= 0)
        ++steps_left_out;
    else
        usleep(25000);
    return 0;
}

namespace {

using Command = AccountFiles;

constexpr char kOut[] = "/tmp/command.out";
constexpr char kErr[] = "/tmp/command.err";

TEST_F(Command, ReturnsTheExitStatus) {
    const std::pair<const char*, int> cases[] = {
        {"true", 0},
        {"exit 3", 3},
        {"exit 255", 255},
        {"/no/such/program", 127},
        {"kill -9 $$", 0},  // ended by a signal: counts as success
        {"exec sleep 0.06", 0},
    };
    for (const auto& [command, want] : cases)
        EXPECT_EQ(want, security_conf_system(command, kOut, kErr)) << command;
    EXPECT_EQ(-1, security_conf_system(nullptr, kOut, kErr));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno) << "no child is left behind";
    EXPECT_EQ(0, steps_of_wrong_length);
}

TEST_F(Command, SendsOutputToItsFiles) {
    unlink(kOut);
    unlink(kErr);
    const mode_t mask = umask(0);
    EXPECT_EQ(0, security_conf_system("echo out; echo error >&2", kOut, kErr));
    umask(mask);
    EXPECT_EQ("out\n", read_file(kOut));
    EXPECT_EQ("error\n", read_file(kErr));
    EXPECT_EQ("0777", mode_of(kOut));

    write_file(kOut, "a longer text from before");
    EXPECT_EQ(0, security_conf_system("printf new", kOut, nullptr));
    EXPECT_EQ("newonger text from before", read_file(kOut)) << "not truncated";
    EXPECT_EQ("error\n", read_file(kErr)) << "left alone";
    EXPECT_EQ(0, security_conf_system("echo lost", "/no/such/folder/file", kErr));
}

TEST_F(Command, RunsInAnEnvironmentOfItsOwn) {
    setenv("LD_PRELOAD_TEST", "leak", 1);
    unlink(kOut);
    const char* const command = "tr '\\0' '\\n' </proc/$$/environ; ls -l /proc/$$/fd";
    EXPECT_EQ(0, security_conf_system(command, kOut, kErr));
    const std::string seen = read_file(kOut), name = std::string(" -> ") + kOut + "\n";
    EXPECT_EQ(0u, seen.find("PATH=/tovo/bin:/tovoboot/bin:/bin:/sbin:/usr/bin:/usr/sbin\ntotal")) << seen;
    EXPECT_EQ(seen.rfind("1" + name), seen.find(name) - 1) << "the stream and no other descriptor" << seen;
}

TEST_F(Command, OutputReachesItsFileEvenWhereTheStreamWasClosed) {
    unlink(kOut);
    EXPECT_EQ(0, in_child([] {
                  close(0);
                  close(1);
                  close(2);
                  open("/dev/null", O_RDONLY);  // becomes 0, so that the file opened next is 1
                  EXPECT_EQ(0, security_conf_system("echo here", kOut, nullptr));
              }));
    EXPECT_EQ("here\n", read_file(kOut));
}

TEST_F(Command, GivesUpAfter6000Steps) {
    steps_left_out = 0;
    errno = 0;
    const int result = security_conf_system("exec sleep 200", kOut, kErr);
    const int error = errno;
    const int steps = steps_left_out;
    steps_left_out = -1;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(ETIME, error);
    EXPECT_EQ(6000, steps);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "killed and reaped";
}

TEST_F(Command, WorksWhereSigchldIsIgnored) {
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(0, security_conf_system("exit 3", kOut, kErr)) << "the wait fails: counts as success";
    signal(SIGCHLD, SIG_DFL);
}

}  // namespace
