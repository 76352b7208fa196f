// Walks over users and over the roles of a user, one step at a time, in name order (shorter names first, then
// by bytes).
//
// No state is kept between steps, so entries may be added and removed during a walk. Each step reads all
// entries and keeps the best candidate, so there is no list to sort and no limit to the number of entries.
#include <shadow.h>

#include <cstring>

#include "base/name_list.h"
#include "library/accounts/entry.h"
#include "library/common/request.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kNameSlot = 128;

// Finds the first name in name order after a given one, among the names passed to consider(), each shorter
// than `size`.
template <size_t size>
class Successor {
 public:
    explicit Successor(const char* given) : given_(given) {}

    void consider(const char* name) {
        const int order = security_conf_compare_username(given_, name);
        reached_ = reached_ || order <= 0;
        if (order < 0 && (!found_ || security_conf_compare_username(name, best_) < 0)) {
            strcpy(best_, name);
            found_ = true;
        }
    }
    // Returns true if the given name itself or one that follows it was considered.
    bool reached() const { return reached_; }
    bool found() const { return found_; }
    const char* name() const { return best_; }

 private:
    const char* given_;
    bool reached_ = false;
    bool found_ = false;
    char best_[size] = {};
};

}  // namespace
}  // namespace quill

int32_t security_conf_compare_username(const void* a, const void* b) {
    const auto* left = static_cast<const char*>(a);
    const auto* right = static_cast<const char*>(b);
    const size_t left_length = strlen(left);
    const size_t right_length = strlen(right);
    if (left_length != right_length) return left_length < right_length ? -1 : 1;
    return strcmp(left, right);
}

uint32_t security_conf_user_getnext(uint32_t, char* name) {
    using namespace quill;
    trace("security_conf_user_getnext(%s)\n", name);
    Successor<kNameSlot> next(name);
    bool any = false;
    uint32_t status = SECURITY_OK;
    call_checking_enomem(status, [] {
        setspent();
        return 0;
    });
    while (const spwd* entry = call_checking_enomem(status, getspent)) {
        if (strlen(entry->sp_namp) >= kNameSlot) {
            trace("%s: name too long, skipped: %s\n", __func__, entry->sp_namp);
            continue;
        }
        trace("security_conf_get_vdc_user(%s)\n", entry->sp_namp);  // existing logs name this function
        next.consider(entry->sp_namp);
        any = true;
    }
    endspent();
    if (status != SECURITY_OK) return status;
    if (any) trace("security_conf_compare_username\n");
    if (!next.reached()) trace("USER_END_OF_TABLE\n");
    if (!next.found()) return SECURITY_ERR_END_OF_TABLE;
    strcpy(name, next.name());
    trace("return %s\n", name);
    return SECURITY_OK;
}

uint32_t security_conf_user_role_getnext(uint32_t session, const char* user, char* role) {
    using namespace quill;
    security_user_roles record{};
    if (strlen(user) >= sizeof record.user_name) return SECURITY_ERR_NOT_FOUND;
    strcpy(record.user_name, user);
    const uint32_t status = with_errno(request(SECURITY_ROLES_REQUEST, GET_REQ, record, session));
    if (status != SECURITY_OK) return status;

    Successor<sizeof record.roles[0]> next(role);
    const auto roles = names_in_use(record.num_roles, record.roles);
    terminate_names(roles);
    for (const NameSlot& name : roles) next.consider(name);
    if (!next.found()) return SECURITY_ERR_NO_MORE_ROLES;
    strcpy(role, next.name());
    return SECURITY_OK;
}

char* security_conf_get_stderr(char* text, const char* marker) {
    char* found = strstr(text, marker);
    return found == nullptr ? text : found + strlen(marker);
}
