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
    if (!descriptor_ && isatty(STDIN_FILENO)) descriptor_.reset(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
}

void Terminal::show(std::string_view text) const {
    // If the prompt cannot be written, the answer is still read.
    [[maybe_unused]] const ssize_t written = write(descriptor_.get(), text.data(), text.size());
}

bool Terminal::confirms(const std::string& question) const {
    show(question + " [y/N] ");
    Line line;
    if (!read_line(descriptor_.get(), kLongestLine, line)) return false;
    const std::string answer = folded({line.bytes, line.length});
    return answer == "y" || answer == "yes";
}

HiddenInput::HiddenInput(const Terminal& terminal) : terminal_(terminal) {
    const sigset_t deferred = set_of(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGTSTP);
    waiting_signals_.reset(signalfd(-1, &deferred, SFD_CLOEXEC));
    if (!waiting_signals_) throw cannot_hide(errno);
    // Before the echo is turned off: a signal in between would leave it off.
    sigprocmask(SIG_BLOCK, &deferred, &mask_before_);
    try {
        hide();
    } catch (...) {
        restore_signals();
        throw;
    }
}

void HiddenInput::hide() {
    if (tcgetattr(terminal_.descriptor(), &modes_before_) != 0) throw cannot_hide(errno);
    termios modes = modes_before_;
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    // In the background this stops the process (SIGTTOU) until it is in the foreground, before anything is
    // changed.
    while (tcsetattr(terminal_.descriptor(), TCSAFLUSH, &modes) != 0) {
        if (errno != EINTR) throw cannot_hide(errno);
    }
    // Restoring the modes must work in the background too.
    const sigset_t background = set_of(SIGTTOU);
    sigprocmask(SIG_BLOCK, &background, nullptr);
}

HiddenInput::~HiddenInput() {
    // Discards what was typed after the line: the next reader may be a shell, which would execute and show
    // it.
    while (tcsetattr(terminal_.descriptor(), TCSAFLUSH, &modes_before_) != 0 && errno == EINTR) {
    }
    restore_signals();
}

// Pending signals are delivered before this returns.
void HiddenInput::restore_signals() const { sigprocmask(SIG_SETMASK, &mask_before_, nullptr); }

bool HiddenInput::input_came_first() const {
    pollfd watched[] = {{terminal_.descriptor(), POLLIN, 0}, {waiting_signals_.get(), POLLIN, 0}};
    while (poll(watched, 2, -1) < 0 && errno == EINTR) {
    }
    return watched[1].revents == 0;
}

bool HiddenInput::read_line(size_t longest, Line& line) const {
    line.length = 0;
    ReadByte result;
    do {
        if (!input_came_first()) return false;
        result = read_byte(terminal_.descriptor(), longest, line);
    } while (result == ReadByte::kByte);
    if (result == ReadByte::kFailed) line.length = 0;
    return true;
}

}  // namespace quill::cli
