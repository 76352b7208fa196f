// Shared by the verbs of quillsec user.
#pragma once

#include <string>

#include "cli/command.h"

namespace quill::cli {

// Returns "user 'amy'", for messages.
std::string user_object(const std::string& name);

// Returns the name. Throws Failure, Exit::kInvalidValue, if it is empty or does not fit into a record.
const std::string& checked_user(const std::string& name);

// Returns a table of one row. Throws Failure, Exit::kNoSuchObject, if the user has no account.
Answer show_user(const std::string& name);

// The verb show: all users, or the one of the argument NAME.
Answer show_users(const Arguments& arguments);

}  // namespace quill::cli
