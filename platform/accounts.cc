#include "quillplatform/accounts.h"

#include <shadow.h>

#include <cerrno>

#include "quillsecurity/status.h"

platform_shadow_entry* mygetspnam(uint32_t, const char* name) {
    static platform_shadow_entry entry;
    errno = 0;
    const spwd* found = getspnam(name);
    if (found != nullptr) {
        entry = {SECURITY_OK, found->sp_pwdp, static_cast<int32_t>(found->sp_expire)};
        return &entry;
    }
    // Only these say that reading went wrong; other values are left over from looking for the file's line.
    if (errno != EACCES && errno != EIO && errno != EMFILE && errno != ENFILE && errno != ENOMEM)
        return nullptr;
    entry = {SECURITY_ERR_TRANSPORT | static_cast<uint32_t>(errno), "", -1};
    return &entry;
}
