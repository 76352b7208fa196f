#include "daemon/change_log.h"

#include <syslog.h>

#include "base/status.h"
#include "daemon/change_words.h"
#include "platform/log.h"
#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// Of what changes, which may be the names of two lists. What follows it, the verdict and who asked, must fit in
// a line of the log too (platform/syslog.cc).
constexpr size_t kLongestText = 1400;

Deed deed_of(const Description& description, const Request& request, const void* stored) {
    if (request.operation == GET_REQ || request.operation == GETNEXT_REQ) return {"", "read"};
    if (request.operation != SET_REQ && request.operation != DEL_REQ) return {};
    return description.deed({request.operation, request.record, stored});
}

void cut(std::string& text) {
    if (text.size() <= kLongestText) return;
    text.resize(kLongestText);
    text += " ...";
}

}  // namespace

ChangeLine::ChangeLine(const Peer& peer, const Request& request)
    : peer_(peer), has_room_(client_log().has_room(peer.uid, peer.administrator)), session_(request.session) {
    client_log().muted = !has_room_;
    if (!has_room_) return;
    user_ = log_safe(request.user_name);
    asked_ = "request of type " + std::to_string(request.type) + ", operation " +
             std::to_string(request.operation) + ", " + std::to_string(request.length) + " bytes";
}

ChangeLine::~ChangeLine() { client_log().muted = false; }

bool ChangeLine::shows_old_value(const Request& request) const {
    const bool changes = request.operation == SET_REQ || request.operation == DEL_REQ;
    const Description* description = has_room_ && changes ? find_description(request.type) : nullptr;
    return description != nullptr && description->shows_old_value;
}

void ChangeLine::describe(const Request& request, const void* stored) {
    const Description* description = has_room_ ? find_description(request.type) : nullptr;
    if (description == nullptr) return;
    const Deed deed = deed_of(*description, request, stored);
    if (deed.asked.empty()) return;
    const std::string object = description->object(request.record) + ": ";
    asked_ = object + deed.asked;
    if (!deed.done.empty()) done_ = object + deed.done;
    cut(asked_);
    cut(done_);
}

void ChangeLine::write(uint32_t status) const {
    if (status == SECURITY_OK) {
        if (!done_.empty()) say(LOG_NOTICE, done_.c_str(), "", "");
        return;
    }
    const bool store_failed = is_store_status(status) && status != PSS_NO_KEY;
    say(LOG_WARNING, asked_.c_str(), store_failed ? " failed: " : " refused: ", syserr2str(status));
}

void ChangeLine::write_failure(const char* reason) const {
    say(LOG_WARNING, asked_.c_str(), " failed: ", reason);
}

void ChangeLine::say(int priority, const char* deed, const char* verdict, const char* reason) const {
    if (!has_room_) return;
    syslog(priority, "%s%s%s, by uid %u pid %d for '%s' in session %u", deed, verdict, reason, peer_.uid,
           peer_.pid, user_.c_str(), session_);
}

}  // namespace quill
