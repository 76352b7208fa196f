#include "daemon/dispatch.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/service.h"
#include "quillplatform/pss.h"
#include "quillsecurity.h"

namespace quill {
namespace {

bool reads(uint32_t operation) { return operation == GET_REQ || operation == GETNEXT_REQ; }

uint32_t find_route(std::span<const Route> routes, const Request& request, const Route*& found) {
    uint32_t status = SECURITY_ERR_REQUEST_TYPE;
    for (const Route& route : routes) {
        if (route.type != request.type) continue;
        status = SECURITY_ERR_REQUEST_SIZE;
        if (route.size != request.length) continue;
        found = &route;
        return SECURITY_OK;
    }
    return status;
}

bool permitted(const Route& route, const Peer& peer, uint32_t operation) {
    const Access needed = reads(operation) ? route.read : route.write;
    if (!peer.known || needed == Access::kNobody) return false;
    return needed == Access::kEveryone || peer.administrator;
}

uint32_t check_record(const Route& route, const unsigned char* record) {
    for (const TextField& text : route.texts)
        if (memchr(record + text.offset, '\0', text.size) == nullptr) return SECURITY_ERR_REQUEST_TEXT;
    for (const CountField& field : route.counts) {
        int32_t count;
        memcpy(&count, record + field.offset, sizeof count);
        if (count < 0 || count > field.largest) return SECURITY_ERR_REQUEST_COUNT;
    }
    return SECURITY_OK;
}

// Every change of a user's, done or refused, with who asked for it.
void log_change(const Route& route, const Peer& peer, const Request& request, const std::string& user,
                uint32_t status) {
    syslog(LOG_NOTICE, "%s of '%s' %s by uid %u, pid %d for '%s' in session %u: %s", route.audited,
           user.c_str(), request.operation == DEL_REQ ? "deleted" : "set", peer.uid, peer.pid,
           log_safe(request.user_name).c_str(), request.session, syserr2str(status));
}

// The request in host order, checked: what the handler sees.
Answer handle(const Route& route, uint32_t store, const Peer& peer, Request& request) {
    const auto type = static_cast<int32_t>(request.type);
    security_conf_cmi_byteorder_convert(type, request.record);
    const uint32_t refused = check_record(route, request.record);
    if (refused != SECURITY_OK) return {refused, 0, false};

    const bool logged =
        route.audited != nullptr && (request.operation == SET_REQ || request.operation == DEL_REQ);
    std::string user;
    if (logged) user = log_safe(reinterpret_cast<const char*>(request.record + route.texts[0].offset));
    uint32_t status =
        SECURITY_ERR_TRANSPORT | ENOMEM;  // what the log has where the handler does not come back
    const auto write_log = [&](void*) {
        if (logged) log_change(route, peer, request, user, status);
    };
    const std::unique_ptr<void, decltype(write_log)> at_the_end(&status, write_log);
    status = route.handle(store, request.operation, request.record);
    security_conf_cmi_byteorder_convert(type, request.record);
    const bool goes_back = status == SECURITY_OK || route.explains_failures;
    return {status, goes_back ? request.length : 0, !reads(request.operation)};
}

}  // namespace

Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, Request& request) {
    const Route* route = nullptr;
    const uint32_t status = find_route(routes, request, route);
    if (status != SECURITY_OK) return {status, 0, false};
    if (!permitted(*route, peer, request.operation)) return {SECURITY_ERR_NOT_PERMITTED, 0, false};
    return handle(*route, store, peer, request);
}

}  // namespace quill
