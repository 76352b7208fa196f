// quillsec watch: shows the changes of users that the daemon announces.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

#include "base/block.h"
#include "base/status.h"
#include "base/text_field.h"
#include "cli/command.h"
#include "cli/words.h"
#include "quillplatform/mts.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {
constexpr uint32_t kLargestCount = 1000000000;

constexpr Argument kCount{"--count", "end after so many", Argument::kOptional, "N"};

// The names of the types, from 1.
constexpr const char* kChanges[] = {"added", "deleted", "modified", "login-failed", "password-changed"};

using Message = std::unique_ptr<void, Release<quill_mts_free>>;

class Listener {
 public:
    Listener() {
        if (quill_mts_listen(MTS_SAP_ALL, SECURITY_MTS_USER_CHANGE, &handle_) == 0) return;
        require_success(errno == EACCES  ? SECURITY_ERR_NOT_PERMITTED
                        : errno == EXDEV ? SECURITY_ERR_CONTEXT
                                         : undelivered_status(errno),
                        "notifications", "listen to");
    }
    ~Listener() { quill_mts_close(handle_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Waits for the next change and returns it; `lost` is the number of changes before it that were not
    // received. Throws Failure.
    security_notification next(uint32_t& lost) const {
        const Message message(quill_mts_receive(handle_, -1));
        if (message == nullptr) {
            const uint32_t status = undelivered_status(errno);
            if (errno != ECONNRESET) require_success(status, "notifications", "receive");
            throw Failure{Exit::kUnreachable, "the daemon", "the daemon has ended",
                          "start quillsecurityd and watch again", status};
        }
        lost = quill_mts_lost(message.get());
        security_notification change;
        if (security_mts_usernotif_parser(message.get(), &change) == 0) return change;
        throw Failure{Exit::kFailed, "notifications", "notifications: one cannot be read",
                      "install quillsec and quillsecurityd of the same version"};
    }

 private:
    uint32_t handle_ = 0;
};

Cell roles_cell(const security_role_set& set) {
    Json names = Json::array();
    std::string text;
    for (size_t i = 0; i < std::min<size_t>(set.count, std::size(set.roles)); ++i) {
        const std::string name = field_text(set.roles[i]);
        names.push_back(name);
        text += (i == 0 ? "" : ",") + name;
    }
    return {names, text};
}

Cell change_cell(uint32_t type) {
    return type - 1 < std::size(kChanges) ? Cell(kChanges[type - 1]) : Cell(type);
}

std::vector<Cell> row(const security_notification& change, uint32_t lost) {
    return {change.number,
            lost,
            change_cell(change.type),
            field_text(change.user_name),
            roles_cell(change.role_set),
            field_text(change.text)};
}

Answer users(const Arguments& arguments) {
    const std::string* text = arguments.find(kCount.name);
    const auto count = text ? number(*text, 1, kLargestCount) : std::nullopt;
    if (text && !count)
        throw Failure{Exit::kInvalidValue, "option '--count'",
                      "option '--count': value '" + *text + "' is not valid", "use a number from 1"};
    const auto listener = std::make_shared<Listener>();
    const auto next = [listener, left = count]() mutable -> std::optional<std::vector<Cell>> {
        if (left && (*left)-- == 0) return std::nullopt;
        uint32_t lost = 0;
        const security_notification change = listener->next(lost);
        return row(change, lost);
    };
    return Stream{{{"number", 8}, {"lost", 6}, {"change", 16}, {"user", 24}, {"roles", 32}, {"text", 0}},
                  next};
}

std::string notes() {
    return "Shows changes of users from now on, as the daemon makes them, until it or this command ends.\n"
           "A change is added, deleted, modified, login-failed or password-changed. NUMBER counts the\n"
           "daemon's announcements; LOST is the number of changes before this one that came too fast for\n"
           "this command and are missing.\n\n"
           "With --json one document a line: {\"number\", \"lost\", \"change\", \"user\", \"roles\": [...], "
           "\"text\"}.";
}

constexpr Verb kVerbs[] = {
    {"users", "show changes of users as they arrive (if no verb is given)", {kCount}, users},
};
}  // namespace

const Noun kWatch{"watch", "notifications as they arrive", notes, kVerbs, true};

}  // namespace quill::cli
