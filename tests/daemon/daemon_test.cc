// quillsecurityd as a service: one at a time, ready when it says so, and nothing left behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quillplatform/pss.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

const std::string kGetSsh = service_frame(GET_REQ, SECURITY_SERVICE_SSH, 0);

std::string set(uint32_t value) { return service_frame(SET_REQ, SECURITY_SERVICE_FIPS, value); }
std::string reply(uint32_t code, uint32_t value) { return reply_frame(0, word(code) + word(value)); }

class SecurityDaemon : public testing::Test {
 protected:
    Daemon& start(const std::vector<std::string>& arguments = {}) {
        daemon.emplace(arguments);
        EXPECT_TRUE(daemon->ready()) << daemon->log();
        return *daemon;
    }

    static void expect_service() { EXPECT_EQ(reply(SECURITY_SERVICE_SSH, 1), RawClient().ask(kGetSsh)); }

    // Runs the program, which must exit with `status` and print the texts.
    void expect_exit(int status, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& texts) {
        std::string printed;
        EXPECT_EQ(status, run_daemon_command(arguments, printed)) << printed;
        for (const auto& text : texts) EXPECT_NE(std::string::npos, printed.find(text)) << printed;
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
    std::optional<Daemon> daemon;
};

TEST_F(SecurityDaemon, StopsCleanly) {
    const mode_t mask = umask(077);
    for (const int signal : {SIGTERM, SIGINT}) {
        start();
        RawClient client;
        client.ask(set(static_cast<uint32_t>(signal)));
        EXPECT_LT(0u, log_size());
        EXPECT_EQ(0, daemon->end(signal)) << daemon->log();
        EXPECT_EQ("", client.receive());
        EXPECT_EQ("0755", mode_of(box.run())) << "whatever the mask";
        EXPECT_EQ("none", mode_of(socket_path));
        EXPECT_EQ(0u, log_size());
    }
    umask(mask);
}

TEST_F(SecurityDaemon, CheckpointsWithinASecondOfAChange) {
    start();
    RawClient client;
    const double first_change = seconds_now();
    size_t before = 0, now = 0;
    // Each change lets the log grow, and further ones do not put its end off.
    for (uint32_t i = 1; now >= before && i < 500; ++i, sleep_for(0.01)) {
        client.ask(set(i));
        before = std::exchange(now, log_size());
        EXPECT_TRUE(i > 1 || now > 0);
    }
    EXPECT_LT(now, before);
    EXPECT_LT(seconds_now() - first_change, 1.5);
}

TEST_F(SecurityDaemon, InTheBackground) {
    expect_exit(0, {}, {});
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

// It leaves the folder in which it was started, so relative paths would name something else.
TEST_F(SecurityDaemon, RefusesFoldersThatAreNotSafe) {
    for (const char* name : {"QUILL_STATE_DIR", "QUILL_RUNTIME_DIR", "QUILL_PLATFORM_CONF"})
        EXPECT_EQ(0, in_child([&] {
                      setenv(name, "relative", 1);
                      expect_exit(1, {}, {name + std::string(" is relative;")});
                  }));
    EXPECT_EQ(0, in_child([&] {
                  setenv("QUILL_RUNTIME_DIR", (box / std::string(100, 'x')).c_str(), 1);
                  expect_exit(1, {}, {"cannot listen for requests: File name too long"});
              }));
    std::filesystem::remove_all(box.state());
    mkdir(box.run().c_str(), 0755);
    chmod(box.run().c_str(), 0775);
    expect_exit(1, {}, {box.run()});
    EXPECT_EQ("none", mode_of(box.state())) << "before anything else";
    chmod(box.run().c_str(), 0755);
    mkdir(box.state().c_str(), 0755);
    expect_exit(1, {}, {box.state() + ":", "mode 0700"});
    EXPECT_EQ("none", mode_of(socket_path));
}

// By path; class Daemon listens under an abstract name.
TEST_F(SecurityDaemon, TellsItsManager) {
    const int notices = bound_socket(SOCK_DGRAM, box / "notify");
    setenv("NOTIFY_SOCKET", (box / "notify").c_str(), 1);
    expect_exit(0, {}, {});
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
    start();
    const auto limit_files = [&](rlim_t size) {
        const rlimit limit{size, RLIM_INFINITY};
        ASSERT_EQ(0, prlimit(daemon->pid(), RLIMIT_FSIZE, &limit, nullptr));
    };
    RawClient client;
    kill(daemon->pid(), SIGPIPE);
    limit_files(1);
    EXPECT_EQ(reply_frame(PSS_TOO_LARGE, ""), client.ask(set(1)));
    EXPECT_EQ(reply(SECURITY_SERVICE_SSH, 1), client.ask(kGetSsh));
    EXPECT_EQ(reply_frame(PSS_TOO_LARGE, ""), client.ask(set(1)));
    EXPECT_EQ(std::string::npos, daemon->log().find("works again")) << "nothing to write does";
    limit_files(RLIM_INFINITY);
    EXPECT_EQ(reply(SECURITY_SERVICE_FIPS, 1), client.ask(set(1)));
    EXPECT_NE(std::string::npos, daemon->log().find("writing works again"));
    EXPECT_NE(std::string::npos, read_file("/proc/" + std::to_string(daemon->pid()) + "/limits")
                                     .find("Max core file size        0                    0 "));
    const std::string facts = read_file("/proc/" + std::to_string(daemon->pid()) + "/status");
    const uint64_t ignored = std::stoull(facts.substr(facts.find("SigIgn:") + 8), nullptr, 16);
    for (const int signal : {SIGPIPE, SIGXFSZ})
        EXPECT_EQ(0u, ignored >> (signal - 1) & 1) << "the commands it runs would inherit that";
}

TEST_F(SecurityDaemon, LogsWhatItRefuses) {
    start({"--admin-group", "no-such-group"});
    const std::string by = ", by uid " + std::to_string(getuid()) + " pid " + std::to_string(getpid());
    RawClient client;
    EXPECT_EQ(reply_frame(SECURITY_ERR_REQUEST_TYPE, ""),
              client.ask(request_frame(4711, 3, "abc", 77, "ann\n'\x7f")));
    // However much is asked for: who asked is in the line.
    security_user_roles many{"nobody-here", 64, {}};
    for (auto& role : many.roles) strcpy(role, "x, by uid 0 pid 1 for 'root' in session 0, and a lot more");
    client.ask(request_frame(SECURITY_ROLE_ASSIGN_REQUEST, SET_REQ,
                             std::string(reinterpret_cast<const char*>(&many), sizeof many), 78));
    expect_service();
    for (int i = 0; i < 100; ++i) client.ask("rubbish");
    const std::string log = daemon->log();
    EXPECT_EQ(std::string::npos, log.find(" 0 bytes ")) << "the end of a connection is no request";
    for (const std::string& line :
         {std::string("there is no group no-such-group"),
          "the daemon does not serve requests of this type" + by + " for 'ann...' in session 77",
          " refused: the record does not exist" + by + " for '' in session 78"})
        EXPECT_NE(std::string::npos, log.find(line)) << log;
    EXPECT_EQ(std::string::npos, log.find("by uid 0 pid 1 ")) << log;
    EXPECT_GT(60, std::count(log.begin(), log.end(), '\n')) << "rubbish does not fill the log";
}

TEST_F(SecurityDaemon, DumpsItsTracesForRootAlone) {
    start();
    const std::string dump = box.run() + "/quillsecurityd.traces";
    write_file(box / "target", "untouched");
    ASSERT_EQ(0, symlink((box / "target").c_str(), dump.c_str()));
    expect_service();
    kill(daemon->pid(), SIGUSR1);
    for (int i = 0; i < 1000 && mode_of(dump) != "0600"; ++i) sleep_for(0.01);
    expect_service();  // answered after the dump, by the same loop
    EXPECT_NE(std::string::npos, read_file(dump).find("GET_REQ for ssh"));
    EXPECT_EQ("untouched", read_file(box / "target"));
}

TEST_F(SecurityDaemon, ItsCommandLine) {
    expect_exit(0, {"--version"}, {"quillsecurityd "});
    expect_exit(0, {"--help"}, {"usage: quillsecurityd"});
    for (const char* wrong : {"--nonsense", "--admin-group"})
        expect_exit(2, {wrong}, {"usage: quillsecurityd"});
    expect_exit(2, {"--foreground", "word"}, {"argument 'word' is not known"});
    EXPECT_EQ("none", mode_of(box.run()));
}

}  // namespace
