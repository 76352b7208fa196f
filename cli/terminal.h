// The person at the terminal, who is asked there whatever standard input and output are connected to.
#pragma once

#include <termios.h>

#include <csignal>
#include <string>
#include <string_view>

#include "cli/line.h"

namespace quill::cli {

// The controlling terminal, or standard input where that is a terminal.
class Terminal {
 public:
    Terminal();
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool found() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    void say(std::string_view text) const;

    // Asks for a yes, in plain sight. False for every other answer.
    bool confirms(const std::string& question) const;

 private:
    int descriptor_;
};

// The terminal does not show what is typed while this is in scope. Signals that end or stop the process wait
// for the end of the scope, so nobody is left with a terminal that shows nothing.
class HiddenInput {
 public:
    explicit HiddenInput(const Terminal& terminal);  // throws Failure where typing cannot be hidden
    ~HiddenInput();
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

    // Reads a line, an empty one where reading fails. False when one of those signals came first: leave the
    // scope, which lets it do its work, and if the process is still there then, ask again.
    bool read_line(size_t longest, Line& line) const;

 private:
    void hide();
    void let_signals_in() const;
    bool input_came_first() const;

    const Terminal& terminal_;
    int waiting_signals_;  // signalfd(2)
    sigset_t mask_before_;
    termios modes_before_;
};

}  // namespace quill::cli
