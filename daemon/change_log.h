// The log of changes: one line for each change that a client made and for each request that it was refused,
// in words, with who asked for it:
//
//   service telnet: 0 to 1, by uid 1000 pid 321 for 'ann' in session 7
//   account 'zoe': creation refused: there is no role of this name, by uid 0 pid 400 for 'root' in session 0
//
// Secrets, hashes and the texts of keys never stand in it, and what a client sent stands in it as log_safe()
// leaves it. Lines count on the budget of the user who caused them (platform/log.h).
#pragma once

#include <cstdint>
#include <string>

#include "platform/channel/server.h"

namespace quill {

// The line of one request. It is put together before the request is served, so that writing it takes no
// memory and nothing of it depends on what a handler leaves in the record.
class ChangeLine {
 public:
    // A line that gives the request's numbers. Where the user's budget has no room for it, nothing of it is
    // ever written.
    ChangeLine(const Peer& peer, const Request& request);
    ~ChangeLine();
    ChangeLine(const ChangeLine&) = delete;
    ChangeLine& operator=(const ChangeLine&) = delete;

    // Whether describe() makes something of the old value.
    bool shows_old_value(const Request& request) const;
    // Puts the line into words. The record has the length of its type, is in host order and need not have
    // been checked. `stored` is a record of the same type with what is stored now, null where nothing is
    // known of it.
    void describe(const Request& request, const void* stored = nullptr);

    // How the request ended. With SECURITY_OK nothing is written of a request that changes nothing.
    void write(uint32_t status) const;
    void write_failure(const char* reason) const;

 private:
    void say(int priority, const char* deed, const char* verdict, const char* reason) const;

    const Peer& peer_;
    bool has_room_;
    uint32_t session_;
    std::string user_;   // for whom the client says that it asks
    std::string asked_;  // "account 'zoe': creation", for a refusal
    std::string done_;   // "account 'zoe': created"; empty where nothing changes
};

}  // namespace quill
