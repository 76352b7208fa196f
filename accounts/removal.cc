// Removing all accounts of a virtual device context, with their homes.
//
// Names go into command lines, so a name that the shell or a tool would take for anything but one plain word
// runs nothing at all, and neither does a command that does not fit its buffer: cut short, it would remove
// what belongs to somebody else. Nor does a name that was cut and so has become another account's.
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "accounts/entry.h"
#include "common/file_made_anew.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kMostUsers = 256;
constexpr size_t kNameSlot = 32;
constexpr size_t kCommand = 80;
constexpr char kOut[] = "/tmp/userdel.out";
constexpr char kErr[] = "/tmp/userdel.err";

struct Name {
    char text[kNameSlot];
    bool cut;
};

// Stored names, in the order of the shadow file. A longer one is cut.
size_t collect(int32_t context, std::array<Name, kMostUsers>& names) {
    size_t count = 0;
    uint32_t status = SECURITY_OK;
    heeding_memory(status, [] {
        setspent();
        return 0;
    });
    const spwd* entry;
    while (count < names.size() && (entry = heeding_memory(status, getspent)) != nullptr) {
        if (is_internal_user(entry->sp_namp) != 0 ||
            security_get_vdc_from_username(entry->sp_namp) != context)
            continue;
        Name& name = names[count++];
        strncpy(name.text, entry->sp_namp, kNameSlot);
        name.cut = name.text[kNameSlot - 1] != '\0';
        name.text[kNameSlot - 1] = '\0';
    }
    endspent();
    if (status != SECURITY_OK) syslog(LOG_ERR, "users of context %d were not all found: no memory", context);
    return count;
}

bool is_plain_word(const char* name) {
    constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-#";
    // An option, a comment, a folder above; and no name at all, which would be everybody's home.
    if (*name == '\0' || *name == '-' || *name == '#' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return false;
    const size_t plain = strspn(name, kPlain);
    return name[plain] == '\0' || strcmp(name + plain, "$") == 0;
}

// The file, if it is ours or can be made so; else none, and the command's words go where our own go. What
// somebody else has put into /tmp under its name is not written through.
const char* own(const char* path) {
    struct stat facts;
    const bool ours = lstat(path, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == geteuid() &&
                      facts.st_nlink == 1;
    return ours || create_empty(path, 0777) ? path : nullptr;
}

// Runs the command unless it does not fit; -1 then.
__attribute__((format(printf, 1, 2))) int32_t run(const char* format, ...) {
    char command[kCommand];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(command, sizeof command, format, arguments);
    va_end(arguments);
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof command;
    return fits ? security_conf_system(command, own(kOut), own(kErr)) : -1;
}

void remove(const Name& listed) {
    const char* name = listed.text;
    int32_t result = -1;
    if (is_plain_word(name) && !(listed.cut && getpwnam(name) != nullptr)) {
        run("rm -fr /bootflash/home/%s /tmp/home/%s", name, name);
        result = run("userdel -r %s", name);
    }
    // userdel's own failures are not told apart: only the runner's count.
    if (result >= 0)
        syslog(LOG_INFO, "deleted user %s", name);
    else
        syslog(LOG_ERR, "user delete failed for: %s return value: %d", name, result);
}

}  // namespace
}  // namespace quill

void security_del_vdc_users_for_vdc(int32_t vdc) {
    std::array<quill::Name, quill::kMostUsers> names;
    const size_t count = quill::collect(vdc, names);
    for (size_t i = 0; i < count; ++i) quill::remove(names[i]);
}

void security_del_vdc_users() { security_del_vdc_users_for_vdc(sysmgrcmn_vdc_id_get()); }
