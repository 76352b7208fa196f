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

// Bytes of the description, which may hold the names of two lists. The verdict and who asked must fit into
// the line as well (platform/syslog.cc).
constexpr size_t kLongestText = 1400;

Phrase phrase_of(const Description& description, const Request& request, const void* stored) {
    if (request.operation == GET_REQ || request.operation == GETNEXT_REQ) return {"", "read"};
    if (request.operation != SET_REQ && request.operation != DEL_REQ) return {};
    return description.phrase({request.operation, request.record, stored});
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
    requested_ = "request of type " + std::to_string(request.type) + ", operation " +
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
    const Phrase phrase = phrase_of(*description, request, stored);
    if (phrase.requested.empty()) return;
    const std::string object = description->object(request.record) + ": ";
    requested_ = object + phrase.requested;
    if (!phrase.done.empty()) done_ = object + phrase.done;
    cut(requested_);
    cut(done_);
}

void ChangeLine::write(uint32_t status) const {
    if (status == SECURITY_OK) {
        if (!done_.empty()) log(LOG_NOTICE, done_.c_str(), "", "");
        return;
    }
    const bool store_failed = is_store_status(status) && status != PSS_NO_KEY;
    log(LOG_WARNING, requested_.c_str(), store_failed ? " failed: " : " refused: ", syserr2str(status));
}

void ChangeLine::write_failure(const char* reason) const {
    log(LOG_WARNING, requested_.c_str(), " failed: ", reason);
}

void ChangeLine::log(int priority, const char* text, const char* verdict, const char* reason) const {
    if (!has_room_) return;
    syslog(priority, "%s%s%s, by uid %u pid %d for '%s' in session %u", text, verdict, reason, peer_.uid,
           peer_.pid, user_.c_str(), session_);
}

}  // namespace quill
