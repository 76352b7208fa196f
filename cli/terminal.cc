#include "cli/terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include "cli/failure.h"
#include "cli/words.h"

namespace quill::cli {
namespace {

template <class... Signals>
sigset_t set_of(Signals... signals) {
    sigset_t set;
    sigemptyset(&set);
    (sigaddset(&set, signals), ...);
    return set;
}

Failure cannot_hide(int error) {
    return {Exit::kFailed, "the terminal",
            fmt::format("the terminal cannot be made to hide what is typed: {}", error_text(error)),
            "give the secret on standard input"};
}
}  // namespace

Terminal::Terminal() : descriptor_(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (descriptor_ < 0 && isatty(STDIN_FILENO)) descriptor_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
}

Terminal::~Terminal() {
    if (descriptor_ >= 0) close(descriptor_);
}

void Terminal::say(std::string_view text) const {
    // A prompt that cannot be shown is no reason not to take the answer.
    [[maybe_unused]] const ssize_t written = write(descriptor_, text.data(), text.size());
}

bool Terminal::confirms(const std::string& question) const {
    say(question + " [y/N] ");
    Line line;
    if (!read_line(descriptor_, kLongestLine, line)) return false;
    const std::string answer = folded({line.bytes, line.length});
    return answer == "y" || answer == "yes";
}

HiddenInput::HiddenInput(const Terminal& terminal) : terminal_(terminal) {
    const sigset_t deferred = set_of(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGTSTP);
    waiting_signals_ = signalfd(-1, &deferred, SFD_CLOEXEC);
    if (waiting_signals_ < 0) throw cannot_hide(errno);
    // Before the terminal is touched: one that came in between would leave it hiding.
    sigprocmask(SIG_BLOCK, &deferred, &mask_before_);
    try {
        hide();
    } catch (...) {
        let_signals_in();
        throw;
    }
}

void HiddenInput::hide() {
    if (tcgetattr(terminal_.descriptor(), &modes_before_) != 0) throw cannot_hide(errno);
    termios modes = modes_before_;
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    // In the background this stops the process until it is in the foreground, with nothing changed yet.
    while (tcsetattr(terminal_.descriptor(), TCSAFLUSH, &modes) != 0) {
        if (errno != EINTR) throw cannot_hide(errno);
    }
    // Putting the modes back must work from there too.
    const sigset_t background = set_of(SIGTTOU);
    sigprocmask(SIG_BLOCK, &background, nullptr);
}

HiddenInput::~HiddenInput() {
    // What was typed behind the line goes: the next reader may be a shell, which would run and show it.
    while (tcsetattr(terminal_.descriptor(), TCSAFLUSH, &modes_before_) != 0 && errno == EINTR) {
    }
    let_signals_in();
}

// Those that waited do their work before this returns.
void HiddenInput::let_signals_in() const {
    close(waiting_signals_);
    sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
}

bool HiddenInput::input_came_first() const {
    pollfd watched[] = {{terminal_.descriptor(), POLLIN, 0}, {waiting_signals_, POLLIN, 0}};
    while (poll(watched, 2, -1) < 0 && errno == EINTR) {
    }
    return watched[1].revents == 0;
}

bool HiddenInput::read_line(size_t longest, Line& line) const {
    line.length = 0;
    Taken taken;
    do {
        if (!input_came_first()) return false;
        taken = take_byte(terminal_.descriptor(), longest, line);
    } while (taken == Taken::kByte);
    if (taken == Taken::kFailed) line.length = 0;
    return true;
}

}  // namespace quill::cli
