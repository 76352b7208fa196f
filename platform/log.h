// The daemon's log: lines about clients within a budget, and what is said later.
//
// syslog(3) is the daemon's own (platform/syslog.cc): it never waits for whoever reads the log.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>

namespace quill {

// What clients cause is logged within a budget of lines a second for each uid, so that no client
// floods the log or keeps the lines of others out of it. Lines beyond the budget are counted, and the count is
// logged.
class ClientLog {
 public:
    // Returns whether one more line about this uid may be written now, which the caller then does. An
    // administrator may cause ten times as many: these lines say what was changed. errno is preserved, for "%m".
    bool has_room(uid_t uid, bool administrator = false);

    // While it is true, the daemon's syslog(3) writes nothing: a request is served whose line found no room, and
    // what its handler logs is left out with it.
    bool muted = false;

    // Logs the counts of lines left out in seconds that are over. Returns false while there are others.
    bool tell_left_out();

 private:
    static constexpr uint32_t kLines = 20;
    static constexpr uint32_t kAdministratorLines = 200;
    static constexpr size_t kUsers = 64;  // uids with a budget of their own in a second; the others share one

    struct Budget {
        uid_t uid = 0;
        uint32_t lines = 0;  // written in this second
        uint32_t left_out = 0;
    };
    Budget& budget_of(uid_t uid);

    time_t second_ = 0;
    size_t used_ = 0;
    std::array<Budget, kUsers> budgets_{};
    Budget others_{};
};

// The one that all of the process uses.
ClientLog& client_log();

// Work of the log that was put off: counts of lines that were left out, and lines that its reader had no room
// for. The function is called now, for what is there already, and whenever there is more; an empty one stops
// that.
void on_log_work(std::function<void()> later);

// Does that work as far as possible without waiting. Returns false while some is left; to be called again
// then.
bool tend_log();

// For whoever puts work off: `flush` is called by tend_log() from now on, and returns false while some is
// left.
void put_off_log_work(bool (*flush)());

}  // namespace quill
