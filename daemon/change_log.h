// The change log: one line for each change that a client made and for each request that was refused, with who
// asked for it:
//
//   service telnet: 0 to 1, by uid 1000 pid 321 for 'ann' in session 7
//   account 'zoe': creation refused: there is no role of this name, by uid 0 pid 400 for 'root' in session 0
//
// It never contains secrets, hashes or key texts; what a client sent is passed through log_safe(). Each line
// counts against the budget of its user (platform/log.h).
#pragma once

#include <cstdint>
#include <string>

#include "platform/channel/server.h"

namespace quill {

// The line of one request. It is composed before the request is handled, so that what the handler does to the
// record does not change it, and that composing it cannot fail after the change.
class ChangeLine {
 public:
    // Composes a line from the request's numbers. If the user's budget has no room for it, neither this line
    // nor one of the handler is written as long as this object exists.
    ChangeLine(const Peer& peer, const Request& request);
    ~ChangeLine();
    ChangeLine(const ChangeLine&) = delete;
    ChangeLine& operator=(const ChangeLine&) = delete;

    // Returns true if describe() shows the old value.
    bool shows_old_value(const Request& request) const;
    // Replaces the numbers by words. The record has the length of its type and is in host order; its fields
    // need not have been checked. `stored` is the record that is stored now; null if there is none or it is
    // not known.
    void describe(const Request& request, const void* stored = nullptr);

    // Writes the line with the result. With SECURITY_OK, writes nothing for a request that changes nothing.
    void write(uint32_t status) const;
    void write_failure(const char* reason) const;

 private:
    void log(int priority, const char* text, const char* verdict, const char* reason) const;

    const Peer& peer_;
    bool has_room_;
    uint32_t session_;
    std::string user_;       // the user for whom the client says that it asks
    std::string requested_;  // "account 'zoe': creation", for a refusal
    std::string done_;       // "account 'zoe': created"; empty if nothing changes
};

}  // namespace quill
