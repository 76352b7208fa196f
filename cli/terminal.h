// Questions to the user at the terminal, independent of standard input and output.
#pragma once

#include <termios.h>

#include <csignal>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "cli/line.h"

namespace quill::cli {

// The controlling terminal, or standard input where that is a terminal.
class Terminal {
 public:
    Terminal();

    bool found() const { return bool(descriptor_); }
    int descriptor() const { return descriptor_.get(); }
    void show(std::string_view text) const;

    // Asks a question, with echo. Returns true for "y" or "yes".
    bool confirms(const std::string& question) const;

 private:
    Descriptor descriptor_;
};

// Turns off the terminal's echo while in scope. Signals that end or stop the process are blocked until the
// echo is on again.
class HiddenInput {
 public:
    explicit HiddenInput(const Terminal& terminal);  // throws Failure if the echo cannot be turned off
    ~HiddenInput();
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

    // Reads a line; an empty one if reading fails. Returns false if one of those signals came first: the
    // caller must leave the scope, in which the signal is delivered, and may then ask again.
    bool read_line(size_t longest, Line& line) const;

 private:
    void hide();
    void restore_signals() const;
    bool input_came_first() const;

    const Terminal& terminal_;
    Descriptor waiting_signals_;  // signalfd(2)
    sigset_t mask_before_;
    termios modes_before_;
};

}  // namespace quill::cli
