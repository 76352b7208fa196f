// Secrets typed at a terminal, over a real daemon: the program runs as a job of a small shell, which prints
// the state of the terminal whenever the job has stopped or ended.
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "tests/cli/quillsec.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"

namespace {

void report(const char* what, int number) {
    termios modes;
    tcgetattr(STDIN_FILENO, &modes);
    int left = 0;
    ioctl(STDIN_FILENO, FIONREAD, &left);
    dprintf(STDOUT_FILENO, "[%s %d, echo %s, %d bytes left]\n", what, number,
            modes.c_lflag & ECHO ? "on" : "off", left);
}

[[noreturn]] void job(const std::vector<const char*>& words) {
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpid());
    signal(SIGTTOU, SIG_DFL);
    _exit(quill::cli::run(words));
}

pid_t the_job;

void take_terminal_and_end_job(int) {
    tcsetpgrp(STDIN_FILENO, getpid());
    kill(the_job, SIGTERM);
}

// Runs the command in the foreground and continues it whenever it has been stopped.
[[noreturn]] void shell(const std::vector<const char*>& words) {
    signal(SIGTTOU, SIG_IGN);
    // SIGUSR1 may come before this process knows the job's id.
    sigset_t early, before;
    sigemptyset(&early);
    sigaddset(&early, SIGUSR1);
    sigprocmask(SIG_BLOCK, &early, &before);
    const pid_t pid = fork();
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        job(words);
    }
    setpgid(pid, pid);
    the_job = pid;
    signal(SIGUSR1, take_terminal_and_end_job);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    for (int status; waitpid(pid, &status, WUNTRACED) == pid;) {
        if (WIFSIGNALED(status)) report("killed by", WTERMSIG(status));
        if (WIFEXITED(status)) report("ended", WEXITSTATUS(status));
        if (!WIFSTOPPED(status)) break;
        report("stopped by", WSTOPSIG(status));
        kill(-pid, SIGCONT);
    }
    _exit(0);
}

// The user's side of the terminal.
class Screen {
 public:
    explicit Screen(const std::vector<const char*>& words) {
        shell_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (shell_ == 0) shell(words);
    }
    ~Screen() {
        close(terminal_);
        kill(shell_, SIGKILL);
        waitpid(shell_, nullptr, 0);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Waits until the screen shows the text, after the text of the previous call. Fails after 20 seconds.
    void shows(const std::string& text) { EXPECT_TRUE(comes(text)) << text << " is not in: " << screen_; }
    void types(const std::string& text) {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(terminal_, text.data(), text.size()));
    }
    void ends_in_the_background() const { kill(shell_, SIGUSR1); }
    const std::string& all() const { return screen_; }

 private:
    bool comes(const std::string& text) {
        for (;;) {
            const size_t found = screen_.find(text, seen_);
            if (found != std::string::npos) {
                seen_ = found + text.size();
                return true;
            }
            pollfd watched{terminal_, POLLIN, 0};
            char bytes[1024];
            if (poll(&watched, 1, 20000) != 1) return false;
            const ssize_t count = read(terminal_, bytes, sizeof bytes);
            if (count <= 0) return false;
            screen_.append(bytes, static_cast<size_t>(count));
        }
    }

    int terminal_ = -1;
    pid_t shell_;
    std::string screen_;
    size_t seen_ = 0;
};

constexpr char kPrompt[] = "secret of privilege level 3: ";
constexpr char kAgain[] = "the same again: ";

class TypedSecret : public testing::Test {
 protected:
    void SetUp() override { ASSERT_TRUE(daemon_.ready()) << daemon_.log(); }

 private:
    Box box_;
    Daemon daemon_;
};

TEST_F(TypedSecret, IsAskedForTwiceToSetAndOnceToVerify) {
    const struct {
        const char* first;
        const char* second;
        int exit;
        const char* says;
    } cases[] = {
        {"hunter2", "hunter2", 0, "3      set     hash"},
        {"hunter2", "hunter3", 6, "privilege level 3: the two entries differ; enter the same secret twice"},
        {"hunter2", "hunter", 6, "differ"},
        {"hunter", "hunter2", 6, "differ"},
        {"hunter2", "", 6, "differ"},
        {"hun\x7fnter2", "hunter2", 0, "3      set     hash"},  // corrected on the way
    };
    for (const auto& c : cases) {
        Screen screen({"secret", "set", "3", "--accept-weak"});
        screen.shows(kPrompt);
        screen.types(std::string(c.first) + "\n");
        screen.shows(kAgain);
        screen.types(std::string(c.second) + "\n");
        screen.shows(c.says);
        screen.shows("[ended " + std::to_string(c.exit) + ", echo on, 0 bytes left]");
        EXPECT_EQ(std::string::npos, screen.all().find("hun")) << screen.all();
    }
    for (const auto& [typed, exit] : {std::pair{"hunter2", 0}, {"hunter3", 1}}) {
        Screen screen({"secret", "verify", "3"});
        screen.shows(kPrompt);
        screen.types(std::string(typed) + "\n");
        screen.shows("[ended " + std::to_string(exit) + ", echo on");
    }
}

// Two lines that arrive at once, as when they are pasted, are two answers; what follows them is discarded. A
// terminal takes up to 2,048 bytes of a write in one piece.
TEST_F(TypedSecret, IsRefusedLikeAnyOther) {
    const std::string too_long = std::string(1024, 'x') + "tail\n";
    const struct {
        std::string typed;
        int exit;
        const char* says;
    } cases[] = {
        {"hunter2\nhunter2\n", 0, "set     hash"},
        {"\n", 6, "the secret is empty"},
        {"\x04", 6, "the secret is empty"},
        {too_long, 6, "the secret is too long"},
        {too_long + "more\n", 6, "the secret is too long"},
    };
    for (const auto& c : cases) {
        Screen screen({"secret", "set", "3", "--accept-weak"});
        screen.shows(kPrompt);
        screen.types(c.typed);
        screen.shows(c.says);
        screen.shows("[ended " + std::to_string(c.exit) + ", echo on, 0 bytes left]");
    }
}

TEST_F(TypedSecret, SignalsFindTheTerminalRestored) {
    Screen screen({"secret", "set", "3", "--accept-weak"});
    screen.shows(kPrompt);
    screen.types("hun\x1a");
    screen.shows("[stopped by 20, echo on, 0 bytes left]");
    // After SIGCONT it asks again from the start.
    screen.shows(kPrompt);
    screen.types("hunter2\n");
    screen.shows(kAgain);
    screen.types("\x1a");
    screen.shows("[stopped by 20, echo on, 0 bytes left]");
    screen.shows(kPrompt);
    screen.types(
        "hun\x04"
        "ter2\x03");
    screen.shows("[killed by 2, echo on, 0 bytes left]");
    EXPECT_EQ(std::string::npos, screen.all().find("hun")) << screen.all();
}

TEST_F(TypedSecret, TheTerminalIsRestoredFromTheBackgroundToo) {
    Screen screen({"secret", "verify", "3"});
    screen.shows(kPrompt);
    screen.ends_in_the_background();
    screen.shows("[killed by 15, echo on");
}

TEST_F(TypedSecret, AllAreDeletedOnlyForAYes) {
    for (const auto& [typed, exit] : {std::pair{"y", 0}, {"YES", 0}, {"", 1}, {"n", 1}, {"yet", 1}}) {
        Screen screen({"secret", "delete", "--all"});
        screen.shows("delete the secrets of all privilege levels? [y/N] ");
        screen.types(std::string(typed) + "\n");
        screen.shows("[ended " + std::to_string(exit) + ", echo on");
    }
}

TEST_F(TypedSecret, IsNotReadFromATerminalThatShowsIt) {
    Screen screen({"secret", "set", "3", "--stdin"});
    screen.shows("standard input is a terminal, which would show what is typed; leave out --stdin");
    screen.shows("[ended 2");
}

}  // namespace
