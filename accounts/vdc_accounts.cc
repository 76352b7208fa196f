// The account files as one virtual device context sees them: its own accounts, under their plain names.
//
// Enumerations and look-ups are the same over passwd and shadow entries; what differs is where an entry comes
// from and where its name stands. Entries are the C library's and live until its next call.
#include <pwd.h>
#include <shadow.h>

#include <cerrno>

#include "accounts/stored_name.h"
#include "quillplatform/accounts.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

char* name_of(const passwd* entry) { return entry->pw_name; }
char* name_of(const spwd* entry) { return entry->sp_namp; }

// The entry of a foreign context's plain name, as its own users know it.
template <class Entry>
Entry* as_seen_from(int context, Entry* entry) {
    if (entry != nullptr && context != kDefaultContext) cut_suffix(name_of(entry));
    return entry;
}

// The next entry of the caller's context that the source gives.
template <class Source>
auto next_of_context(Source source) {
    for (;;) {
        auto* entry = source();
        if (entry == nullptr) return entry;
        const int context = sysmgrcmn_vdc_id_get();
        if (security_get_vdc_from_username(name_of(entry)) == context) return as_seen_from(context, entry);
    }
}

template <class LookUp>
auto look_up(LookUp by_name, const char* name) -> decltype(by_name(name)) {
    const int context = sysmgrcmn_vdc_id_get();
    if (context > kLargestContext) {
        errno = EINVAL;
        return nullptr;
    }
    return as_seen_from(context, by_name(security_get_system_username(name)));
}

// The entry unless the platform's look-up failed; then null, and the status that it gave.
uint32_t shadow_entry(uint32_t handle, const char* name, platform_shadow_entry** entry) {
    *entry = mygetspnam(handle, name);
    if (*entry == nullptr) return SECURITY_OK;
    const uint32_t status = (*entry)->status;
    if (status != SECURITY_OK) *entry = nullptr;
    return status;
}

}  // namespace
}  // namespace quill

passwd* vdc_getpwent() { return quill::next_of_context(getpwent); }
spwd* vdc_getspent() { return quill::next_of_context(getspent); }
passwd* vdc_fgetpwent(FILE* stream) {
    return quill::next_of_context([stream] { return fgetpwent(stream); });
}
spwd* vdc_fgetspent(FILE* stream) {
    return quill::next_of_context([stream] { return fgetspent(stream); });
}

passwd* vdc_getpwnam(const char* name) { return quill::look_up(getpwnam, name); }
spwd* vdc_getspnam(const char* name) { return quill::look_up(getspnam, name); }

// Whoever's account it is: outside the default context four characters go, whether they are a suffix or not.
passwd* vdc_getpwuid(uid_t uid) {
    passwd* entry = getpwuid(uid);
    return quill::as_seen_from(sysmgrcmn_vdc_id_get(), entry);
}

uint32_t security_conf_get_vdc_user(uint32_t handle, const char* name, platform_shadow_entry** entry) {
    return quill::shadow_entry(handle, name, entry);
}

// The same, but a failure shows only as a missing entry; its callers never looked at a status.
uint32_t security_conf_get_user(uint32_t handle, const char* name, platform_shadow_entry** entry) {
    quill::shadow_entry(handle, name, entry);
    return SECURITY_OK;
}

uint32_t cmi_security_num_users_get(uint32_t, uint32_t* count) {
    *count = 0;
    setpwent();
    while (const passwd* entry = vdc_getpwent())
        if (vdc_getspnam(entry->pw_name) != nullptr) ++*count;
    endpwent();
    return SECURITY_OK;
}
