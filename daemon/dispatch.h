// The trust boundary: a handler is called only after the request's type and size, the rights of its caller,
// and the text and count fields that the operation uses have been checked.
#pragma once

#include <span>

#include "daemon/routes.h"
#include "platform/channel/server.h"

namespace quill {

// Handles one request: checks it, converts its record to host order, calls the route's handler and converts
// the record back. The record is returned on success, and on failures of routes with kExplains.
//
// A user's list that this connection read in order to change it is stored only if it is still the stored one;
// else the status is SECURITY_ERR_CHANGED (daemon/list_race.h). `state` is that of the connection.
//
// Each change, and each refused request, is logged (daemon/change_log.h). Exceptions of a handler are passed
// on.
Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, ConnectionState& state,
                Request& request);

}  // namespace quill
