#include "platform/log.h"

#include <syslog.h>

#include <cerrno>
#include <utility>

namespace quill {
namespace {

std::function<void()> work_callback;
bool (*flush_lines)() = nullptr;

void announce_work() {
    if (work_callback) work_callback();
}

}  // namespace

ClientLog::Budget& ClientLog::budget_of(uid_t uid) {
    for (size_t i = 0; i < used_; ++i)
        if (budgets_[i].uid == uid) return budgets_[i];
    if (used_ == kUsers) return others_;
    budgets_[used_] = {uid, 0, 0};
    return budgets_[used_++];
}

bool ClientLog::has_room(uid_t uid, bool administrator) {
    const int kept_errno = errno;
    report_dropped();
    Budget& budget = budget_of(uid);
    const bool room = budget.lines < (administrator ? kAdministratorLines : kLines);
    if (room)
        ++budget.lines;
    else if (++budget.dropped == 1)
        announce_work();
    errno = kept_errno;
    return room;
}

bool ClientLog::report_dropped() {
    const time_t now = time(nullptr);
    const auto dropped = [this] {
        uint32_t sum = others_.dropped;
        for (size_t i = 0; i < used_; ++i) sum += budgets_[i].dropped;
        return sum;
    };
    if (now == second_) return dropped() == 0;
    for (size_t i = 0; i < used_; ++i)
        if (budgets_[i].dropped != 0)
            syslog(LOG_WARNING, "%u more lines about uid %u left out", budgets_[i].dropped, budgets_[i].uid);
    if (others_.dropped != 0) syslog(LOG_WARNING, "%u lines about other users left out", others_.dropped);
    second_ = now;
    used_ = 0;
    others_ = {};
    return true;
}

ClientLog& client_log() {
    static ClientLog log;
    return log;
}

void on_log_work(std::function<void()> callback) {
    work_callback = std::move(callback);
    announce_work();
}

void defer_log_flush(bool (*flush)()) {
    flush_lines = flush;
    announce_work();
}

bool tend_log() {
    const bool reported = client_log().report_dropped();
    return (flush_lines == nullptr || flush_lines()) && reported;
}

}  // namespace quill
