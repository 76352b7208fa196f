// Child processes: how they are started, and programs that are run to their end.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <initializer_list>
#include <string>
#include <string_view>

#include "base/descriptor.h"

namespace quill {

// As fork(2), but the child has none of its parent's signal handlers, which may write to an event loop
// through descriptors that the child shares. No signal is blocked in the child.
pid_t fork_without_handlers();

using Deadline = std::chrono::steady_clock::time_point;
inline Deadline after(std::chrono::milliseconds time) { return std::chrono::steady_clock::now() + time; }

struct Program {
    std::initializer_list<const char*> words;  // its path, then its arguments
    std::string_view input =
        {};         // its standard input, at most 4096 bytes; secrets go here, never into `words`
    int held = -1;  // a descriptor that it keeps open as long as it runs, or -1
};

struct ProgramResult {
    int code = kNotStarted;  // exit status, or 128 + the number of the signal that ended it
    std::string errors;      // what it wrote to standard error, the first 4095 bytes
    bool timed_out = false;  // it was killed at its deadline

    static constexpr int kNotStarted = 127;

    bool ok() const { return code == 0; }
    // Whether the program ended by its own decision and not by a signal or for want of resources.
    bool decided() const { return code < kNotStarted; }
};

// A program that runs without a shell, in a session and an environment (PATH and LC_ALL=C) of its own, with
// umask 022 and /dev/null as standard output. It is not ended with this object.
class RunningProgram {
 public:
    // Starts it. If that fails, it has ended with kNotStarted.
    explicit RunningProgram(const Program& program);

    // Waits until it and whatever shares its standard error have ended; false at the deadline.
    bool wait(Deadline deadline);
    // Kills the program and the processes of its group. A process that even SIGKILL does not end is left
    // behind after one second.
    void kill();

    // Once it has ended.
    const ProgramResult& result() const { return result_; }

 private:
    bool reap(Deadline deadline);

    ProgramResult result_;
    pid_t child_ = -1;
    Descriptor errors_;  // where its standard error is read, until all writers have ended
};

// Kills all processes of a user who is not root (kill(2) with pid -1, in a child that has become that user).
void end_processes_of(uid_t uid);

// Runs a program to its end, which is enforced at the deadline.
ProgramResult run_program(const Program& program, Deadline deadline);

}  // namespace quill
