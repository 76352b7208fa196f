// quillsecurityd as a service: one at a time, ready when it says so, and nothing left behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "quillplatform/pss.h"
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

    // Bytes of changes in the store's log, whose room may stay.
    size_t log_size() const { return read_file(box.state() + "/security.db-wal").find_last_not_of('\0') + 1; }

    Box box;
    const std::string socket_path = box.run() + "/quillsecurityd.sock";
    std::string printed;
};

TEST_F(SecurityDaemon, RunsOnce) {
    Daemon first;
    ASSERT_TRUE(first.ready()) << first.log();
    EXPECT_EQ(1, run_daemon_command({}, printed));
    EXPECT_NE(std::string::npos, printed.find("another quillsecurityd of this context is running already"))
        << printed;
    expect_service();
    EXPECT_EQ(first.pid(), RawClient().server());
}

TEST_F(SecurityDaemon, StopsCleanly) {
    const mode_t mask = umask(077);
    for (const int signal : {SIGTERM, SIGINT}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        RawClient client;
        client.ask(set(SECURITY_SERVICE_FIPS, static_cast<uint32_t>(signal)));
        EXPECT_LT(0u, log_size());
        EXPECT_EQ(0, daemon.end(signal)) << daemon.log();
        EXPECT_EQ("", client.receive());
        EXPECT_EQ("0755", mode_of(box.run())) << "whatever the mask";
        EXPECT_EQ("none", mode_of(socket_path));
        EXPECT_EQ(0u, log_size());
    }
    umask(mask);
}

TEST_F(SecurityDaemon, SettlesWithinASecondOfAChange) {
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    RawClient client;
    const double start = seconds_now();
    size_t before = 0, now = 0;
    // Each change lets the log grow, and further ones do not put its end off.
    for (uint32_t i = 1; now >= before && i < 500; ++i, sleep_for(0.01)) {
        client.ask(set(SECURITY_SERVICE_FIPS, i));
        before = std::exchange(now, log_size());
        EXPECT_TRUE(i > 1 || now > 0);
    }
    EXPECT_LT(now, before);
    EXPECT_LT(seconds_now() - start, 1.5);
}

// Clients change a password in the record that they got, which still holds the rest of a longer one.
TEST_F(SecurityDaemon, NothingBehindAPasswordIsStored) {
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    security_user user{};
    strcpy(user.user_name, "amy");
    memcpy(user.password, "new\0ecthorsebattery", 19);
    const auto record = [&] { return std::string(reinterpret_cast<const char*>(&user), sizeof user); };
    RawClient client;
    EXPECT_EQ(reply_frame(0, "").substr(0, 12),
              client.ask(request_frame(SECURITY_USER_REQUEST, SET_REQ, record())).substr(0, 12));
    for (const auto& [name, bytes] : files_in(box.state()))
        EXPECT_EQ(std::string::npos, bytes.find("horse")) << name;
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
}

TEST_F(SecurityDaemon, ARuntimeFolderOpenToOthersIsRefused) {
    mkdir(box.run().c_str(), 0755);
    chmod(box.run().c_str(), 0775);
    EXPECT_EQ(1, run_daemon_command({}, printed));
    EXPECT_NE(std::string::npos, printed.find(box.run())) << printed;
    EXPECT_EQ("none", mode_of(box.state())) << "before anything else";
}

// By path; class Daemon listens under an abstract name.
TEST_F(SecurityDaemon, TellsItsManager) {
    const int notices = bound_socket(SOCK_DGRAM, box / "notify");
    setenv("NOTIFY_SOCKET", (box / "notify").c_str(), 1);
    EXPECT_EQ(0, run_daemon_command({}, printed)) << printed;
    unsetenv("NOTIFY_SOCKET");
    stop();
    char notice[32];
    for (const std::string want : {"READY=1", "STOPPING=1"}) {
        const ssize_t got = recv(notices, notice, sizeof notice, MSG_DONTWAIT);
        EXPECT_EQ(want, std::string(notice, got < 0 ? 0 : static_cast<size_t>(got)));
    }
    close(notices);
}

// A file that may grow no more, and a reader of its log that has gone.
TEST_F(SecurityDaemon, OutlivesWritesThatFail) {
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const auto limit_files = [&](rlim_t size) {
        const rlimit limit{size, RLIM_INFINITY};
        ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_FSIZE, &limit, nullptr));
    };
    RawClient client;
    kill(daemon.pid(), SIGPIPE);
    limit_files(1);
    EXPECT_EQ(reply_frame(PSS_TOO_LARGE, ""), client.ask(set(SECURITY_SERVICE_FIPS, 1)));
    EXPECT_EQ(value(SECURITY_SERVICE_SSH, 1), client.ask(get(SECURITY_SERVICE_SSH)));
    EXPECT_EQ(reply_frame(PSS_TOO_LARGE, ""), client.ask(set(SECURITY_SERVICE_FIPS, 1)));
    EXPECT_EQ(std::string::npos, daemon.log().find("works again")) << "nothing to write does";
    limit_files(RLIM_INFINITY);
    EXPECT_EQ(value(SECURITY_SERVICE_FIPS, 1), client.ask(set(SECURITY_SERVICE_FIPS, 1)));
    EXPECT_NE(std::string::npos, daemon.log().find("writing works again"));
    const std::string facts = read_file("/proc/" + std::to_string(daemon.pid()) + "/status");
    const uint64_t ignored = std::stoull(facts.substr(facts.find("SigIgn:") + 8), nullptr, 16);
    for (const int signal : {SIGPIPE, SIGXFSZ})
        EXPECT_EQ(0u, ignored >> (signal - 1) & 1) << "the commands it runs would inherit that";
}

TEST_F(SecurityDaemon, LogsWhatItRefuses) {
    Daemon daemon({"--admin-group", "no-such-group"});
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const std::string by = ", by uid " + std::to_string(getuid()) + " pid " + std::to_string(getpid());
    RawClient client;
    EXPECT_EQ(reply_frame(SECURITY_ERR_REQUEST_TYPE, ""),
              client.ask(request_frame(4711, 3, "abc", 77, "ann\n'\x7f")));
    // However much is asked for: who asked is in the line.
    security_user_roles many{"nobody-here", 64, {}};
    for (auto& role : many.roles) strcpy(role, "x, by uid 0 pid 1 for 'root' in session 0, and a lot more");
    client.ask(request_frame(SECURITY_ROLE_ASSIGN_REQUEST, SET_REQ,
                             std::string(reinterpret_cast<const char*>(&many), sizeof many), 78));
    for (int i = 0; i < 100; ++i) client.ask("rubbish");
    const std::string log = daemon.log();
    EXPECT_NE(std::string::npos, log.find("there is no group no-such-group")) << log;
    EXPECT_NE(std::string::npos, log.find("the daemon does not serve requests of this type" + by +
                                          " for 'ann...' in session 77"))
        << log;
    EXPECT_NE(std::string::npos,
              log.find(" refused: the record does not exist" + by + " for '' in session 78"))
        << log;
    EXPECT_EQ(std::string::npos, log.find("by uid 0 pid 1 ")) << log;
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

// It leaves the folder in which it was started, and must not look for them elsewhere.
TEST_F(SecurityDaemon, RelativePathsAreRefused) {
    for (const char* name : {"QUILL_STATE_DIR", "QUILL_RUNTIME_DIR", "QUILL_PLATFORM_CONF"}) {
        const int ended = in_child([&] {
            setenv(name, "relative", 1);
            EXPECT_EQ(1, run_daemon_command({}, printed));
            EXPECT_NE(std::string::npos, printed.find(name + std::string(" is relative;"))) << printed;
        });
        EXPECT_EQ(0, ended) << name;
    }
}

}  // namespace
