// The account files as a virtual device context sees them: its own accounts, under their plain names.
//
// Walks and look-ups work alike on passwd and shadow entries. Entries belong to the C library and are valid
// until its next call.
#include <pwd.h>
#include <shadow.h>

#include <cerrno>

#include "base/context_name.h"
#include "quillplatform/accounts.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

char* name_of(const passwd* entry) { return entry->pw_name; }
char* name_of(const spwd* entry) { return entry->sp_namp; }

// Removes the context suffix from the entry's name, except in the default context. Accepts null.
template <class Entry>
Entry* strip_context(int context, Entry* entry) {
    if (entry != nullptr && context != kDefaultContext) cut_context_suffix(name_of(entry));
    return entry;
}

// Returns the next entry of the caller's context from `source`, or null at the end.
template <class Source>
auto next_in_context(Source source) {
    for (;;) {
        auto* entry = source();
        if (entry == nullptr) return entry;
        const int context = sysmgrcmn_vdc_id_get();
        if (security_get_vdc_from_username(name_of(entry)) == context) return strip_context(context, entry);
    }
}

template <class LookUp>
auto look_up(LookUp by_name, const char* name) -> decltype(by_name(name)) {
    const int context = sysmgrcmn_vdc_id_get();
    if (context > kLargestContext) {
        errno = EINVAL;
        return nullptr;
    }
    return strip_context(context, by_name(security_get_system_username(name)));
}

// Stores the platform's entry in *entry, null if there is none. If the look-up failed, stores null and
// returns its status.
uint32_t shadow_entry(uint32_t handle, const char* name, platform_shadow_entry** entry) {
    *entry = mygetspnam(handle, name);
    if (*entry == nullptr) return SECURITY_OK;
    const uint32_t status = (*entry)->status;
    if (status != SECURITY_OK) *entry = nullptr;
    return status;
}

}  // namespace
}  // namespace quill

passwd* vdc_getpwent() { return quill::next_in_context(getpwent); }
spwd* vdc_getspent() { return quill::next_in_context(getspent); }
passwd* vdc_fgetpwent(FILE* stream) {
    return quill::next_in_context([stream] { return fgetpwent(stream); });
}
spwd* vdc_fgetspent(FILE* stream) {
    return quill::next_in_context([stream] { return fgetspent(stream); });
}

passwd* vdc_getpwnam(const char* name) { return quill::look_up(getpwnam, name); }
spwd* vdc_getspnam(const char* name) { return quill::look_up(getspnam, name); }

// Finds accounts of every context. Outside the default context the last four characters of the name are
// removed, whether they are a suffix or not.
passwd* vdc_getpwuid(uid_t uid) {
    passwd* entry = getpwuid(uid);
    return quill::strip_context(sysmgrcmn_vdc_id_get(), entry);
}

uint32_t security_conf_get_vdc_user(uint32_t handle, const char* name, platform_shadow_entry** entry) {
    return quill::shadow_entry(handle, name, entry);
}

// The same, but a failed look-up is reported only as a missing entry: callers do not check the status.
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
