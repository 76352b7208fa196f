#include "quillplatform/accounts.h"

#include <shadow.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "quillplatform/sysmgr.h"
#include "quillsecurity/status.h"

namespace {

constexpr int32_t kDefaultContext = 1;
constexpr size_t kLongestName = 131;

}  // namespace

platform_shadow_entry* mygetspnam(uint32_t, const char* name) {
    static platform_shadow_entry entry;
    const int32_t context = sysmgrcmn_vdc_id_get();
    char stored[kLongestName + 1];
    const bool qualified = context == kDefaultContext || strchr(name, '#') != nullptr;
    const int length = qualified ? snprintf(stored, sizeof stored, "%s", name)
                                 : snprintf(stored, sizeof stored, "%s#%02d#", name, context);
    if (length < 0 || static_cast<size_t>(length) >= sizeof stored) return nullptr;  // nobody's

    errno = 0;
    const spwd* found = getspnam(stored);
    if (found != nullptr) {
        const auto days = std::clamp<long>(found->sp_expire, -1, INT32_MAX);
        entry = {SECURITY_OK, found->sp_pwdp, static_cast<int32_t>(days)};
        return &entry;
    }
    // Only these say that reading went wrong; other values are left over from looking for the file's line. A
    // file that is closed to the caller may not show in errno at all.
    int error = errno;
    if (euidaccess("/etc/shadow", R_OK) != 0 && errno == EACCES) error = EACCES;
    if (error != EACCES && error != EIO && error != EMFILE && error != ENFILE && error != ENOMEM)
        return nullptr;
    entry = {SECURITY_ERR_TRANSPORT | static_cast<uint32_t>(error), "", -1};
    return &entry;
}
