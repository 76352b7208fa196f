// What the verbs of quillsec user share.
#pragma once

#include <string>

#include "cli/command.h"

namespace quill::cli {

// "user 'amy'", as messages call it.
std::string user_object(const std::string& name);

// The name, which fits the records of requests. Throws Failure kInvalidValue for an empty or longer one.
const std::string& checked_user(const std::string& name);

// A table of one row; throws Failure kNoSuchObject for a user who has no account.
Answer show_user(const std::string& name);

// The verb: all users, or the one that NAME names.
Answer show_users(const Arguments& arguments);

}  // namespace quill::cli
