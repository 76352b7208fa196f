#include "daemon/dispatch.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <vector>

#include "base/last_reads.h"
#include "daemon/accounts.h"
#include "daemon/change_log.h"
#include "daemon/list_race.h"
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
    const Access needed = reads(operation) ? route.rights.read : route.rights.write;
    if (!peer.known || needed == Access::kNobody) return false;
    return needed == Access::kEveryone || peer.administrator;
}

uint32_t check_field(const Field& field, const unsigned char* record) {
    if (field.kind == Field::Kind::kText) {
        const bool ends = memchr(record + field.offset, '\0', field.limit) != nullptr;
        return ends ? SECURITY_OK : SECURITY_ERR_REQUEST_TEXT;
    }
    int32_t count;
    memcpy(&count, record + field.offset, sizeof count);
    const bool in_range = count >= 0 && static_cast<size_t>(count) <= field.limit;
    return in_range ? SECURITY_OK : SECURITY_ERR_REQUEST_COUNT;
}

uint32_t check_record(const Route& route, uint32_t operation, const unsigned char* record) {
    const bool keys_only = reads(operation) || operation == DEL_REQ;
    for (const Field& field : route.fields) {
        if (keys_only && field.use != Field::Use::kKey) continue;
        const uint32_t status = check_field(field, record);
        if (status != SECURITY_OK) return status;
    }
    return SECURITY_OK;
}

// One request that passed the checks.
struct Call {
    const Route& route;
    uint32_t store;
    const Peer& peer;
    ConnectionState& state;
    const Request& request;

    uint32_t handle() const { return route.handle(store, request.operation, request.record); }
};

// The stored record that a request is about to change, read by the route's own handler.
class StoredRecord {
 public:
    void read(const Call& call) {
        const Request& request = call.request;
        record_.assign(request.record, request.record + request.length);
        status_ = call.route.handle(call.store, GET_REQ, record_.data());
    }
    uint32_t status() const { return status_; }
    // Null if there is none, or it was not read.
    const void* record() const { return status_ == SECURITY_OK ? record_.data() : nullptr; }

 private:
    uint32_t status_ = SECURITY_ERR_NOT_FOUND;
    std::vector<unsigned char> record_;  // aligned for any type
};

uint32_t read(const Call& call) {
    const uint32_t status = call.handle();
    if (status == SECURITY_OK && reads_to_change(call.request.type, call.request.operation))
        remember_read_list(call.peer, call.state, call.request);
    return status;
}

uint32_t check_list(const Call& call, const StoredRecord& stored) {
    if (stored.status() != SECURITY_OK) return stored.status();
    return check_race(call.state, call.request, *static_cast<const NameList*>(stored.record()));
}

uint32_t change(const Call& call) {
    const bool replaces_list = call.request.operation == SET_REQ && carries_list(call.request.type);
    const bool compares = replaces_list && has_read_list(call.state, call.request);
    // Before the stored record is read: a repair may change it.
    const bool ready = (call.route.flags & kRepairsFirst) == 0 || repair_accounts(call.store);
    uint32_t status = ready ? SECURITY_OK : SECURITY_ERR_ACCOUNT_REPAIR;

    ChangeLine line(call.peer, call.request);
    try {
        StoredRecord stored;
        if (compares || line.shows_old_value(call.request)) stored.read(call);
        line.describe(call.request, stored.record());
        if (status == SECURITY_OK && compares) status = check_list(call, stored);
        if (status == SECURITY_OK) status = call.handle();
    } catch (const std::exception& failure) {
        line.write_failure(failure.what());
        throw;
    }
    line.write(status);

    if (status == SECURITY_OK && replaces_list) remember_stored_list(call.state, call.request);
    return status;
}

// Logs the refusal. `route` is null if there is none; else the record is in host order.
Answer refuse(const Route* route, const Peer& peer, const Request& request, uint32_t status) {
    ChangeLine line(peer, request);
    if (route != nullptr) line.describe(request);
    line.write(status);
    return {status, 0, false};
}

}  // namespace

Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, ConnectionState& state,
                Request& request) {
    const Route* route = nullptr;
    uint32_t status = find_route(routes, request, route);
    if (status != SECURITY_OK) return refuse(nullptr, peer, request, status);

    const auto type = static_cast<int32_t>(request.type);
    security_conf_cmi_byteorder_convert(type, request.record);  // to host order
    status = permitted(*route, peer, request.operation)
                 ? check_record(*route, request.operation, request.record)
                 : SECURITY_ERR_NOT_PERMITTED;
    if (status != SECURITY_OK) return refuse(route, peer, request, status);

    const bool changes = !reads(request.operation);
    const Call call{*route, store, peer, state, request};
    status = changes ? change(call) : read(call);
    security_conf_cmi_byteorder_convert(type, request.record);
    const bool with_record = status == SECURITY_OK || (route->flags & kExplains) != 0;
    return {status, with_record ? request.length : 0, changes};
}

}  // namespace quill
