// Changes of a list that a client reads, changes and stores as a whole, at the same time as another does: the
// connection's last read of the list is compared with what is stored when the changed list arrives.
#pragma once

#include <cstdint>

#include "base/name_list.h"
#include "platform/channel/server.h"

namespace quill {

// Remembers in the connection's state what it was given of a list: the record of a request that succeeded,
// which read the list in order to change it (base/last_reads.h) or stored it. Only administrators may store a
// list, so nothing is remembered of others. Throws std::bad_alloc where it cannot; the connection must end
// then.
void note_read_list(const Peer& peer, ConnectionState& state, const Request& request);
void note_stored_list(ConnectionState& state, const Request& request);

// Whether a list that arrives may be compared: this connection read it before in order to change it, or that
// is no longer known.
bool was_read(const ConnectionState& state, const Request& request);

// SECURITY_ERR_CHANGED where the list that is stored now is another than the one that this connection read,
// or where that is no longer known: who reads it again may store it.
uint32_t check_race(const ConnectionState& state, const Request& request, const NameList& stored);

}  // namespace quill
