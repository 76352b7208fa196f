// Counted lists of names, as records carry the roles and the locales of a user: a count, then 64 slots of 65
// bytes. Counts and names come from clients and from the store, so neither is trusted.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "quillsecurity/records.h"

namespace quill {

constexpr int32_t kMostNames = 64;

using NameSlot = char[65];

// security_user_roles and security_user_locales, for what is done with both alike.
struct NameList {
    char user_name[128];
    int32_t count;
    NameSlot names[kMostNames];
};
static_assert(sizeof(NameList) == sizeof(security_user_roles));
static_assert(sizeof(NameList) == sizeof(security_user_locales));
static_assert(offsetof(NameList, names) == offsetof(security_user_roles, roles));
static_assert(offsetof(NameList, names) == offsetof(security_user_locales, locales));

// Returns the slots that the count says are in use: none for a negative count, at most all 64.
inline std::span<NameSlot> names_in_use(int32_t count, NameSlot (&slots)[kMostNames]) {
    return {slots, static_cast<size_t>(std::clamp(count, 0, kMostNames))};
}
inline std::span<const NameSlot> names_in_use(int32_t count, const NameSlot (&slots)[kMostNames]) {
    return {slots, static_cast<size_t>(std::clamp(count, 0, kMostNames))};
}

// Puts a terminator into the last byte of each slot.
inline void terminate_names(std::span<NameSlot> names) {
    for (NameSlot& name : names) name[sizeof name - 1] = '\0';
}

// Returns the index of the name in the list, or -1. Slots need no terminator.
inline int32_t find_name(std::span<const NameSlot> names, const char* name) {
    for (size_t i = 0; i < names.size(); ++i)
        if (strncmp(names[i], name, sizeof names[i]) == 0) return static_cast<int32_t>(i);
    return -1;
}

}  // namespace quill
