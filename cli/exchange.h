// Requests that no function of the library makes as they are needed here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quill::cli {

// Asks the daemon with a record of this type and size. A reply as long as that replaces the record, with
// success and with failures that bring one; success without one is SECURITY_ERR_TRANSPORT | EPROTO. Answers
// the status as status_of() gives it.
uint32_t ask(int32_t request_type, uint32_t operation, void* record, uint32_t size);

// Throws the Failure of a daemon that cannot be asked: there is none in this process's context, it has no
// place for another client, or it is another context's.
void require_daemon();

// The names of a user's list: SECURITY_ROLES_REQUEST or SECURITY_LOCALE_ASSIGN_REQUEST.
uint32_t read_names(int32_t request_type, const std::string& user, std::vector<std::string>& names);

}  // namespace quill::cli
