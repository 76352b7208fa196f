// The one shape of a user's roles and of his locales, for what is done with both alike.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quillsecurity/records.h"

namespace quill {

constexpr int32_t kMostNames = 64;

struct NameList {
    char user_name[128];
    int32_t count;
    char names[kMostNames][65];
};
static_assert(sizeof(NameList) == sizeof(security_user_roles));
static_assert(sizeof(NameList) == sizeof(security_user_locales));
static_assert(offsetof(NameList, names) == offsetof(security_user_roles, roles));
static_assert(offsetof(NameList, names) == offsetof(security_user_locales, locales));

}  // namespace quill
