// Where the daemon puts the homes of the accounts that it makes.
#pragma once

#include <string>

namespace quill {

constexpr char kHomes[] = "/bootflash/home";

// The home of the account with this stored name (base/context_name.h).
inline std::string home_of(const std::string& stored) { return std::string(kHomes) + "/" + stored; }

}  // namespace quill
