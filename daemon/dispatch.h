// The trust boundary: nothing of a request reaches a handler before its route, size, caller and what the
// operation reads of its texts and counts have been found right.
#pragma once

#include <span>

#include "daemon/routes.h"
#include "platform/channel/server.h"

namespace quill {

// Serves one request with the store: checks it, converts its record to host order, has the route's handler do
// it and converts the record back. A record goes back with success, and with failures that its route
// explains.
//
// A user's list that this connection read in order to change it, and that is another by now, is not stored:
// SECURITY_ERR_CHANGED. What the connection read is kept in `state`.
//
// Each change that was made, and each request that was refused, is a line of the log (daemon/change_log.h).
// What a handler throws passes through.
Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, ConnectionState& state,
                Request& request);

}  // namespace quill
