#include "quillplatform/accounts.h"

#include <shadow.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/context_name.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity/status.h"

namespace {

constexpr size_t kLongestName = 131;

}  // namespace

platform_shadow_entry* mygetspnam(uint32_t, const char* name) {
    using namespace quill;
    static platform_shadow_entry entry;
    const int32_t context = sysmgrcmn_vdc_id_get();
    char stored[kLongestName + 1];
    const bool qualified = strchr(name, kContextMark) != nullptr;
    if (make_stored_name(stored, name, qualified ? kDefaultContext : context) >= sizeof stored)
        return nullptr;  // no account has such a long name

    errno = 0;
    const spwd* found = getspnam(stored);
    if (found != nullptr) {
        const auto days = std::clamp<long>(found->sp_expire, -1, INT32_MAX);
        entry = {SECURITY_OK, found->sp_pwdp, static_cast<int32_t>(days)};
        return &entry;
    }
    // Only the values below mean that the file could not be read; a search that found nothing may set others.
    // getspnam(3) may fail without setting EACCES, so the permission is checked here.
    int error = errno;
    if (euidaccess("/etc/shadow", R_OK) != 0 && errno == EACCES) error = EACCES;
    if (error != EACCES && error != EIO && error != EMFILE && error != ENFILE && error != ENOMEM)
        return nullptr;
    entry = {SECURITY_ERR_TRANSPORT | static_cast<uint32_t>(error), "", -1};
    return &entry;
}
