// Lost updates of lists: a client reads a list, changes it and stores it as a whole, and must not undo what
// another client stored in between. So the list that a connection read last is compared with the stored one
// when the changed list arrives.
#pragma once

#include <cstdint>

#include "base/name_list.h"
#include "platform/channel/server.h"

namespace quill {

// Remember in the connection's state the list in the record of a request that succeeded: one that read it in
// order to change it (base/last_reads.h), or one that stored it. Only administrators may store a list, so
// reads of others are not remembered. Throw std::bad_alloc; then the connection must be closed.
void remember_read_list(const Peer& peer, ConnectionState& state, const Request& request);
void remember_stored_list(ConnectionState& state, const Request& request);

// Returns true if this connection read the list in order to change it, or may have: it has read more lists
// than are remembered.
bool has_read_list(const ConnectionState& state, const Request& request);

// Returns SECURITY_ERR_CHANGED if the stored list differs from the one that this connection read, or if that
// is no longer known; after reading it again, the client may store it. Else returns 0.
uint32_t check_race(const ConnectionState& state, const Request& request, const NameList& stored);

}  // namespace quill
