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
    const bool keys_alone = reads(operation) || operation == DEL_REQ;
    for (const Field& field : route.fields) {
        if (keys_alone && field.use != Field::Use::kKey) continue;
        const uint32_t status = check_field(field, record);
        if (status != SECURITY_OK) return status;
    }
    return SECURITY_OK;
}

// What the store has where the request is about to change it, read with the route's own handler.
class Stored {
 public:
    void read(const Route& route, uint32_t store, const Request& request) {
        record_.assign(request.record, request.record + request.length);
        status_ = route.handle(store, GET_REQ, record_.data());
    }
    uint32_t status() const { return status_; }
    // Null where there is none, or it was not read.
    const void* record() const { return status_ == SECURITY_OK ? record_.data() : nullptr; }

 private:
    uint32_t status_ = SECURITY_ERR_NOT_FOUND;
    std::vector<unsigned char> record_;  // aligned for any type
};

uint32_t read(const Route& route, uint32_t store, const Peer& peer, ConnectionState& state,
              const Request& request) {
    const uint32_t status = route.handle(store, request.operation, request.record);
    if (status == SECURITY_OK && reads_to_change(request.type, request.operation))
        note_read_list(peer, state, request);
    return status;
}

// Whether the list that was read in order to change it is still what is stored.
uint32_t check_list(const ConnectionState& state, const Request& request, const Stored& stored) {
    if (stored.status() != SECURITY_OK) return stored.status();
    return check_race(state, request, *static_cast<const NameList*>(stored.record()));
}

uint32_t change(const Route& route, uint32_t store, const Peer& peer, ConnectionState& state,
                const Request& request) {
    // A repair may change what is stored, and would overwrite what is stored now.
    const bool repaired = (route.flags & kOfAccounts) == 0 || repair_accounts(store);
    const bool replaces_list = request.operation == SET_REQ && carries_list(request.type);
    const bool compares = replaces_list && was_read(state, request);
    ChangeLine line(peer, request);
    uint32_t status = repaired ? SECURITY_OK : SECURITY_ERR_ACCOUNT_REPAIR;
    try {
        Stored stored;
        if (compares || line.shows_old_value(request)) stored.read(route, store, request);
        line.describe(request, stored.record());
        if (status == SECURITY_OK && compares) status = check_list(state, request, stored);
        if (status == SECURITY_OK) status = route.handle(store, request.operation, request.record);
    } catch (const std::exception& failure) {
        line.write_failure(failure.what());
        throw;
    }
    line.write(status);
    if (status == SECURITY_OK && replaces_list) note_stored_list(state, request);
    return status;
}

// The record is in host order where there is a route.
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

    status = reads(request.operation) ? read(*route, store, peer, state, request)
                                      : change(*route, store, peer, state, request);
    security_conf_cmi_byteorder_convert(type, request.record);
    const bool goes_back = status == SECURITY_OK || (route->flags & kExplains) != 0;
    return {status, goes_back ? request.length : 0, !reads(request.operation)};
}

}  // namespace quill
