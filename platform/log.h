// The daemon's log: limits on the lines that clients cause, and work that the event loop does later.
//
// The daemon has its own syslog(3), which never waits for the reader of the log (platform/syslog.cc).
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>

namespace quill {

// Limits the lines that each uid causes per second, so that no client floods the log or displaces the lines
// of others. The number of dropped lines is logged.
class ClientLog {
 public:
    // Counts one line about this uid. Returns whether the caller may write it. The limit of administrators is
    // ten times as high, since their lines record changes. Preserves errno, for "%m".
    bool has_room(uid_t uid, bool administrator = false);

    // While true, the daemon's syslog(3) writes nothing. Set while a request is executed whose line was
    // dropped, so that the lines of its handler are dropped too.
    bool muted = false;

    // Logs the numbers of lines that were dropped until the current second. Returns false if lines were
    // dropped in this second; to be called again later then.
    bool report_dropped();

 private:
    static constexpr uint32_t kLines = 20;
    static constexpr uint32_t kAdministratorLines = 200;
    static constexpr size_t kUsers = 64;  // uids with their own budget in a second; all others share one

    struct Budget {
        uid_t uid = 0;
        uint32_t lines = 0;  // written in this second
        uint32_t dropped = 0;
    };
    Budget& budget_of(uid_t uid);

    time_t second_ = 0;
    size_t used_ = 0;
    std::array<Budget, kUsers> budgets_{};
    Budget others_{};
};

// Returns the only instance of the process.
ClientLog& client_log();

// Deferred work: numbers of dropped lines, and lines that the reader of the log had no room for.

// Sets a function that is called whenever there is new deferred work, and now if there may be some already.
// An empty function is not called.
void on_log_work(std::function<void()> callback);

// Does the deferred work that is possible without waiting. Returns false if some is left; to be called again
// later then.
bool tend_log();

// Adds deferred work: tend_log() calls `flush` from now on, which returns false if some is left. There is
// only one such function.
void defer_log_flush(bool (*flush)());

}  // namespace quill
