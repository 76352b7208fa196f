// Child processes, each of which runs a function or a program: started, read from, waited for, killed,
// reaped.
//
// All of this is for one thread.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "base/deadline.h"
#include "base/descriptor.h"

namespace quill {

// A program is run without a shell, in a new session, with umask 022 and an environment of PATH and
// LC_ALL=C. The standard streams that are neither `input` nor captured are /dev/null.
struct Program {
    enum Capture { kErrors, kOutput, kBoth };

    std::initializer_list<const char*> words;  // its path, then its arguments
    std::string_view input = {};  // its standard input, at most 4096 bytes; for secrets, not `words`
    int held = -1;                // a descriptor that it keeps open as long as it runs, or -1
    const char* path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    Capture capture = kErrors;
    size_t most_output = 4095;      // what is captured beyond that is dropped
    bool leaves_processes = false;  // wait() does not wait for what it started and left running
    bool dies_with_parent = false;  // as die_with_parent()
};

struct ProgramResult {
    int code = kNotStarted;  // exit status, or 128 + the number of the signal that ended it
    std::string output;      // what was captured
    bool timed_out = false;  // it was killed by end()

    static constexpr int kNotStarted = 127;

    bool ok() const { return code == 0; }
    // Whether the program ended by its own decision, and not by a signal or for lack of resources.
    bool decided() const { return code < kNotStarted; }
};

// Kills the calling process when its parent, the process `parent`, ends. The parent may have ended already.
void die_with_parent(pid_t parent);

// A child process. It has none of our signal handlers, because they may write to an event loop through
// descriptors that it shares, and no signal is blocked in it.
//
// Destroying this object does not end the process. Such a process, and one that SIGKILL does not end in time,
// is reaped when a later child is started.
class Child {
 public:
    Child() = default;

    // Starts a program. On failure, wait() returns true and the result's code is kNotStarted.
    static Child run(const Program& program);

    // Forks a child that calls `body` and exits with the status that it returns. On failure as above, with
    // errno.
    template <class Body>
    static Child call(const Body& body) {
        Child child;
        if (child.start()) exit_with([&] { return body(); });
        return child;
    }
    // The same for a function with an argument: a descriptor, what is written to which is captured.
    template <class Body>
    static Child call_with_output(size_t most_output, const Body& body) {
        Child child;
        const Descriptor output = child.capture(most_output);
        if (output && child.start()) exit_with([&] { return body(output.get()); });
        return child;
    }

    // The process ID; not above 0 if it was not started or has been reaped.
    pid_t id() const { return pid_.number; }

    // Waits until it, and whatever shares the stream that is captured, have ended. Returns false if that was
    // not before the deadline.
    bool wait(Deadline deadline);
    bool has_ended() { return wait(Deadline()); }
    // Sends SIGKILL to it and the processes of its group. Does not wait.
    void kill() const;
    // Kills it and waits for its end, at most a second. Does nothing if wait() has returned true.
    void end();

    // The result, once it has ended. Before that, only `output` is set: to what has been read so far.
    const ProgramResult& result() const { return result_; }

 private:
    // The ID of a process that has not been reaped, or not above 0.
    struct Unreaped {
        pid_t number = -1;

        Unreaped() = default;
        Unreaped(Unreaped&& other) noexcept : number(std::exchange(other.number, -1)) {}
        Unreaped& operator=(Unreaped&& other) noexcept {
            std::swap(number, other.number);
            return *this;
        }
        ~Unreaped() { reap_later(); }
        Unreaped(const Unreaped&) = delete;
        Unreaped& operator=(const Unreaped&) = delete;
        void reap_later();
    };

    // No exception may unwind into the code of the parent, of which the child has a copy.
    template <class Body>
    [[noreturn]] static void exit_with(const Body& body) noexcept {
        _exit(body());
    }

    Descriptor capture(size_t most_output);
    bool start();
    bool read_output();
    bool reap(Deadline deadline);

    Unreaped pid_;
    Descriptor output_;  // the end that is read; closed when all writers have ended
    size_t most_output_ = 0;
    bool leaves_processes_ = false;
    ProgramResult result_;
};

// Runs a program, and ends it at the deadline.
ProgramResult run_program(const Program& program, Deadline deadline);

// Kills all processes of a user who is not root: with kill(2) for pid -1, in a child that has become that
// user.
void end_processes_of(uid_t uid);

}  // namespace quill
