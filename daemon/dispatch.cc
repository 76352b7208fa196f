#include "daemon/dispatch.h"

#include <cstring>

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
    return peer.known && (needed == Access::kEveryone || peer.administrator);
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

// The request in host order, checked: what the handler sees.
uint32_t handle(const Route& route, uint32_t store, Request& request) {
    const auto type = static_cast<int32_t>(request.type);
    security_conf_cmi_byteorder_convert(type, request.record);
    uint32_t status = check_record(route, request.record);
    if (status != SECURITY_OK) return status;
    status = route.handle(store, request.operation, request.record);
    security_conf_cmi_byteorder_convert(type, request.record);
    return status;
}

}  // namespace

Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, Request& request) {
    const Route* route = nullptr;
    const uint32_t status = find_route(routes, request, route);
    if (status != SECURITY_OK) return {status, 0, false};
    if (!permitted(*route, peer, request.operation)) return {SECURITY_ERR_NOT_PERMITTED, 0, false};
    const uint32_t handled = handle(*route, store, request);
    return {handled, handled == SECURITY_OK ? request.length : 0, !reads(request.operation)};
}

}  // namespace quill
