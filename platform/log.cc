#include "platform/log.h"

#include <syslog.h>

#include <cerrno>
#include <utility>

namespace quill {
namespace {

std::function<void()> work_is_there;
bool (*flush_lines)() = nullptr;

void ask_for_work() {
    if (work_is_there) work_is_there();
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
    tell_left_out();
    Budget& budget = budget_of(uid);
    const bool room = budget.lines < (administrator ? kAdministratorLines : kLines);
    if (room)
        ++budget.lines;
    else if (++budget.left_out == 1)
        ask_for_work();
    errno = kept_errno;
    return room;
}

bool ClientLog::tell_left_out() {
    const time_t now = time(nullptr);
    const auto left_out = [this] {
        uint32_t sum = others_.left_out;
        for (size_t i = 0; i < used_; ++i) sum += budgets_[i].left_out;
        return sum;
    };
    if (now == second_) return left_out() == 0;
    for (size_t i = 0; i < used_; ++i)
        if (budgets_[i].left_out != 0)
            syslog(LOG_WARNING, "%u more lines about uid %u left out", budgets_[i].left_out, budgets_[i].uid);
    if (others_.left_out != 0) syslog(LOG_WARNING, "%u lines about other users left out", others_.left_out);
    second_ = now;
    used_ = 0;
    others_ = {};
    return true;
}

ClientLog& client_log() {
    static ClientLog log;
    return log;
}

void on_log_work(std::function<void()> later) {
    work_is_there = std::move(later);
    ask_for_work();
}

void put_off_log_work(bool (*flush)()) {
    flush_lines = flush;
    ask_for_work();
}

bool tend_log() {
    const bool told = client_log().tell_left_out();
    return (flush_lines == nullptr || flush_lines()) && told;
}

}  // namespace quill
