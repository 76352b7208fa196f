// The built-in roles, and the roles and locales in the configuration.
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/config.h"
#include "quillplatform/shell.h"

namespace quill {
namespace {

constexpr std::string_view kBuiltIn[] = {"network-admin", "network-operator", "vdc-admin", "vdc-operator"};
constexpr std::string_view kPrivilege = "priv-";
constexpr int32_t kHighestPrivilege = 15;

// priv-0 to priv-15, without leading zeros.
bool is_privilege(const char* role) {
    if (strncmp(role, kPrivilege.data(), kPrivilege.size()) != 0) return false;
    const auto level = parse_number(role + kPrivilege.size(), 0, kHighestPrivilege);
    return level && std::to_string(*level) == role + kPrivilege.size();
}

int32_t result_of(bool exists) { return exists ? 0 : -1; }

}  // namespace
}  // namespace quill

int32_t vshd_perm_group_role_name_verify(uint32_t, const char* role) {
    using namespace quill;
    if (role == nullptr) return -1;
    return result_of(std::ranges::find(kBuiltIn, role) != std::end(kBuiltIn) || is_privilege(role) ||
                     config().roles.contains(role));
}

int32_t vshd_perm_locale_name_verify(uint32_t, const char* locale) {
    return quill::result_of(locale != nullptr && quill::config().locales.contains(locale));
}
