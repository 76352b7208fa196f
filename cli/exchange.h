// Requests for which the library has no suitable function.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quill::cli {

// Sends a record of this type and size, in host order. A reply of the same size replaces the record, also
// with a failure. Returns the status as status_of() does, and SECURITY_ERR_TRANSPORT | EPROTO for success
// without such a reply.
uint32_t ask(int32_t request_type, uint32_t operation, void* record, uint32_t size);

// Throws Failure if requests cannot be sent to the daemon: it does not run, has too many clients, or belongs
// to another context.
void require_daemon();

// Reads the list of a user's roles (SECURITY_ROLES_REQUEST) or locales (SECURITY_LOCALE_ASSIGN_REQUEST).
// Returns the status; on success, the names are appended to `names`.
uint32_t read_names(int32_t request_type, const std::string& user, std::vector<std::string>& names);

}  // namespace quill::cli
