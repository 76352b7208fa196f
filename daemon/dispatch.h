// The trust boundary: nothing of a request reaches a handler before its route, size, caller, texts and counts
// have been found right.
#pragma once

#include <span>

#include "daemon/routes.h"
#include "platform/channel/server.h"

namespace quill {

// Answers one request against the store: checks it, then converts its record to host order, has it handled
// and converts it back. A record goes back with success, and with failures that its route explains.
Answer dispatch(std::span<const Route> routes, uint32_t store, const Peer& peer, Request& request);

}  // namespace quill
