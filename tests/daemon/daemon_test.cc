// quillsecurityd as a service: one at a time, ready when it says so, and nothing left behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

std::string get(uint32_t code) {
    return request_frame(SECURITY_ENABLE_INFO_REQUEST, GET_REQ, word(code) + word(0));
}
std::string set(uint32_t code, uint32_t value) {
    return request_frame(SECURITY_ENABLE_INFO_REQUEST, SET_REQ, word(code) + word(value));
}
std::string value(uint32_t code, uint32_t value) { return reply_frame(0, word(code) + word(value)); }

class SecurityDaemon : public testing::Test {
 protected:
    static void expect_service() {
        EXPECT_EQ(value(SECURITY_SERVICE_SSH, 1), RawClient().ask(get(SECURITY_SERVICE_SSH)));
    }

    // Ends a daemon that went into the background.
    static void stop() {
        const pid_t pid = RawClient().server();
        if (pid > 1) kill(pid, SIGTERM);
        for (int i = 0; i < 1000 && RawClient().server() == pid; ++i) sleep_for(0.01);
    }

    off_t log_size() const {
        struct stat facts;
        return stat((box.state() + "/security.db-wal").c_str(), &facts) == 0 ? facts.st_size : 0;
    }

    Box box;
    const std::string socket_path = box.run() + "/quillsecurityd.sock";
    std::string printed;
};

TEST_F(SecurityDaemon, RunsOnce) {
    Daemon first;
    ASSERT_TRUE(first.ready()) << first.log();
    EXPECT_EQ(1, run_daemon_command({}, printed));
    EXPECT_NE(std::string::npos, printed.find("another quillsecurityd is running already; stop it first"))
        << printed;
    EXPECT_EQ(1, run_daemon_command({"--foreground"}, printed));
    expect_service();
    EXPECT_EQ(first.pid(), RawClient().server());
}

TEST_F(SecurityDaemon, TakesOverAfterACrash) {
    {
        Daemon killed;
        ASSERT_TRUE(killed.ready()) << killed.log();
        EXPECT_EQ(value(SECURITY_SERVICE_FIPS, 1), RawClient().ask(set(SECURITY_SERVICE_FIPS, 1)));
        killed.end(SIGKILL);
    }
    EXPECT_EQ("0666", mode_of(socket_path)) << "it left its socket";
    Daemon next;
    ASSERT_TRUE(next.ready()) << next.log();
    EXPECT_EQ(value(SECURITY_SERVICE_FIPS, 1), RawClient().ask(get(SECURITY_SERVICE_FIPS)));
}

TEST_F(SecurityDaemon, StopsCleanly) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        RawClient client;
        client.ask(set(SECURITY_SERVICE_FIPS, static_cast<uint32_t>(signal)));
        EXPECT_LT(0, log_size());
        EXPECT_EQ(0, daemon.end(signal)) << daemon.log();
        EXPECT_EQ("", client.receive());
        EXPECT_EQ("none", mode_of(socket_path));
        EXPECT_EQ(0, log_size());
    }
}

TEST_F(SecurityDaemon, SettlesWithinASecondOfAChange) {
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    RawClient client;
    const double start = seconds_now();
    off_t before = 0, now = 0;
    // Each change lets the log grow, and further ones do not put its end off.
    for (uint32_t i = 1; now >= before && i < 500; ++i, sleep_for(0.01)) {
        client.ask(set(SECURITY_SERVICE_FIPS, i));
        before = std::exchange(now, log_size());
        EXPECT_TRUE(i > 1 || now > 0);
    }
    EXPECT_LT(now, before);
    EXPECT_LT(seconds_now() - start, 1.5);
}

TEST_F(SecurityDaemon, InTheBackground) {
    ASSERT_EQ(0, run_daemon_command({}, printed)) << printed;
    expect_service();
    const pid_t pid = RawClient().server();
    EXPECT_EQ(pid, getsid(pid)) << "a session of its own";
    stop();
    EXPECT_EQ("none", mode_of(socket_path));

    // The same where the starter has closed its standard files: no file of the daemon's may take their place.
    EXPECT_EQ(0, in_child([] {
                  for (const int file : {0, 1, 2}) close(file);
                  execute_daemon({});
              }));
    expect_service();
    stop();
}

TEST_F(SecurityDaemon, AStoreThatIsRefusedIsSaidAndFails) {
    mkdir(box.state().c_str(), 0755);
    EXPECT_EQ(1, run_daemon_command({}, printed));
    EXPECT_NE(std::string::npos, printed.find(box.state() + ":")) << printed;
    EXPECT_NE(std::string::npos, printed.find("mode 0700")) << printed;
    EXPECT_EQ("none", mode_of(socket_path));
    chmod(box.state().c_str(), 0700);
    write_file(box.state() + "/security.db", "no store");
    EXPECT_EQ(1, run_daemon_command({"--foreground"}, printed));
    EXPECT_EQ("no store", read_file(box.state() + "/security.db"));
}

TEST_F(SecurityDaemon, ARuntimeFolderOpenToOthersIsRefused) {
    mkdir(box.run().c_str(), 0755);
    chmod(box.run().c_str(), 0775);
    EXPECT_EQ(1, run_daemon_command({}, printed));
    EXPECT_NE(std::string::npos, printed.find(box.run())) << printed;
    EXPECT_EQ("none", mode_of(box.state())) << "before anything else";
}

TEST_F(SecurityDaemon, TellsItsManagerByPathOrAbstractName) {
    for (const std::string& path : {box / "notify", "@quill-manager-" + std::to_string(getpid())}) {
        const int notices = bound_socket(SOCK_DGRAM, path);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        EXPECT_EQ(0, run_daemon_command({}, printed)) << printed;
        unsetenv("NOTIFY_SOCKET");
        stop();
        char notice[32];
        for (const std::string want : {"READY=1", "STOPPING=1"}) {
            const ssize_t got = recv(notices, notice, sizeof notice, MSG_DONTWAIT);
            EXPECT_EQ(want, std::string(notice, got < 0 ? 0 : static_cast<size_t>(got))) << path;
        }
        close(notices);
    }
}

TEST_F(SecurityDaemon, OutlivesTheReaderOfItsLog) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const pid_t daemon = start_child([&] {
        signal(SIGPIPE, SIG_DFL);
        dup2(ends[1], STDERR_FILENO);
        execute_daemon({"--foreground"});
    });
    close(ends[0]);
    close(ends[1]);
    for (int i = 0; i < 1000 && RawClient().server() < 0; ++i) sleep_for(0.01);
    RawClient client;
    EXPECT_EQ(reply_frame(SECURITY_ERR_REQUEST_FRAME, ""), client.ask("refused, and that is logged"));
    EXPECT_EQ(value(SECURITY_SERVICE_SSH, 1), client.ask(get(SECURITY_SERVICE_SSH)));
    kill(daemon, SIGTERM);
    EXPECT_EQ(0, wait_for(daemon));
}

TEST_F(SecurityDaemon, LogsWhatItRefuses) {
    Daemon daemon({"--admin-group", "no-such-group"});
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const std::string peer = "uid " + std::to_string(getuid()) + ", pid " + std::to_string(getpid());
    RawClient client;
    EXPECT_EQ(reply_frame(SECURITY_ERR_REQUEST_TYPE, ""), client.ask(request_frame(4711, 3, "abc")));
    for (int i = 0; i < 100; ++i) client.ask("rubbish");
    const std::string log = daemon.log();
    EXPECT_NE(std::string::npos, log.find("there is no group no-such-group")) << log;
    EXPECT_NE(std::string::npos, log.find("type 4711, operation 3, 155 bytes from " + peer)) << log;
    EXPECT_GT(60, std::count(log.begin(), log.end(), '\n')) << "rubbish does not fill the log";
}

TEST_F(SecurityDaemon, DumpsItsTracesForRootAlone) {
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const std::string dump = box.run() + "/quillsecurityd.traces";
    write_file(box / "target", "untouched");
    ASSERT_EQ(0, symlink((box / "target").c_str(), dump.c_str()));
    expect_service();
    kill(daemon.pid(), SIGUSR1);
    for (int i = 0; i < 1000 && mode_of(dump) != "0600"; ++i) sleep_for(0.01);
    expect_service();  // answered after the dump, by the same loop
    EXPECT_NE(std::string::npos, read_file(dump).find("GET_REQ for ssh"));
    EXPECT_EQ("untouched", read_file(box / "target"));
}

TEST_F(SecurityDaemon, MembersOfTheGivenGroupAreAdministrators) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    const auto set_as_nobody = [] {
        become_nobody();
        return RawClient().ask(set(SECURITY_SERVICE_FIPS, 1));
    };
    const std::string done = value(SECURITY_SERVICE_FIPS, 1),
                      refused = reply_frame(SECURITY_ERR_NOT_PERMITTED, "");
    for (const auto& [group, want] :
         {std::pair{"nogroup", done}, std::pair{"daemon", refused}, std::pair{"root", refused}}) {
        Daemon daemon({"--admin-group", group});
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        const int ended = in_child([&] { EXPECT_EQ(want, set_as_nobody()) << group; });
        EXPECT_EQ(0, ended);
        EXPECT_EQ(0, daemon.end());
    }
}

TEST_F(SecurityDaemon, ItsCommandLine) {
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* text;
    } cases[] = {
        {{"--version"}, 0, "quillsecurityd "},
        {{"--help"}, 0, "usage: quillsecurityd"},
        {{"--nonsense"}, 2, "usage: quillsecurityd"},
        {{"--admin-group"}, 2, "usage: quillsecurityd"},
        {{"--foreground", "word"}, 2, "argument 'word' is not known"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.status, run_daemon_command(c.arguments, printed));
        EXPECT_NE(std::string::npos, printed.find(c.text)) << printed;
    }
    EXPECT_EQ("none", mode_of(box.run()));
}

}  // namespace
