#include "daemon/announce.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>

namespace quill {
namespace {

constexpr int32_t kMostRoles = 64;

uint32_t handle = 0;
uint32_t announcements = 0;

// Copies only the roles in use; what is behind them in the record is not sent.
security_role_set role_set_of(const security_user_roles& roles) {
    security_role_set set{};
    set.count = static_cast<uint32_t>(std::clamp(roles.num_roles, 0, kMostRoles));
    memcpy(set.roles, roles.roles, set.count * sizeof set.roles[0]);
    return set;
}

}  // namespace

void announce_on(uint32_t mts_handle) { handle = mts_handle; }

void announce_user_change(uint32_t type, const char* user, const security_user_roles& roles) {
    if (handle == 0) return;
    const security_role_set set = role_set_of(roles);
    const uint32_t status = security_userchange_notify(handle, type, user, ++announcements, &set, nullptr);
    if (status != 0) syslog(LOG_ERR, "a change of user %s could not be announced: error %u", user, status);
}

}  // namespace quill
