// Users and roles one at a time: the entry that follows the one named, in name order (shorter first, then by
// bytes).
//
// No state is kept between steps, so that a walk survives what is added and removed on its way. A step reads
// everything once and keeps the best candidate; there is no list to sort or to outgrow.
#include <shadow.h>

#include <algorithm>
#include <cstring>

#include "accounts/entry.h"
#include "common/name_list.h"
#include "common/request.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kNameSlot = 128;

// The first name in order that follows the given one.
template <size_t size>
class Successor {
 public:
    explicit Successor(const char* given) : given_(given) {}

    void offer(const char* name) {
        const int order = security_conf_compare_username(given_, name);
        reached_ = reached_ || order <= 0;
        if (order < 0 && (!found_ || security_conf_compare_username(name, best_) < 0)) {
            strcpy(best_, name);
            found_ = true;
        }
    }
    bool reached() const { return reached_; }  // the given name or one that follows it was there
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
    heeding_memory(status, [] {
        setspent();
        return 0;
    });
    while (const spwd* entry = heeding_memory(status, getspent)) {
        if (strlen(entry->sp_namp) >= kNameSlot) {
            trace("%s: name too long, skipped: %s\n", __func__, entry->sp_namp);
            continue;
        }
        trace("security_conf_get_vdc_user(%s)\n", entry->sp_namp);  // the text that logs have for it
        next.offer(entry->sp_namp);
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
    const int32_t count = std::clamp(record.num_roles, 0, kMostNames);
    for (int32_t i = 0; i < count; ++i) {
        record.roles[i][sizeof record.roles[i] - 1] = '\0';
        next.offer(record.roles[i]);
    }
    if (!next.found()) return SECURITY_ERR_NO_MORE_ROLES;
    strcpy(role, next.name());
    return SECURITY_OK;
}

char* security_conf_get_stderr(char* text, const char* marker) {
    char* found = strstr(text, marker);
    return found == nullptr ? text : found + strlen(marker);
}
