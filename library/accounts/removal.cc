// Removal of all accounts of a virtual device context, with their home directories.
//
// Names become part of command lines. Nothing is run for a name that the shell or a tool would not take for
// one plain word, for a command that does not fit its buffer, and for a name that was cut and is now the name
// of another account: it would remove files or accounts of somebody else.
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/file.h"
#include "library/accounts/entry.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kMaxUsers = 256;
constexpr size_t kNameSlot = 32;
constexpr size_t kCommand = 80;
constexpr char kOut[] = "/tmp/userdel.out";
constexpr char kErr[] = "/tmp/userdel.err";

struct AccountName {
    char text[kNameSlot];
    bool truncated;
};

// Collects the stored names of a context's accounts that are not internal, in the order of the shadow file.
// Returns their number.
size_t collect(int32_t context, std::array<AccountName, kMaxUsers>& names) {
    size_t count = 0;
    uint32_t status = SECURITY_OK;
    call_checking_enomem(status, [] {
        setspent();
        return 0;
    });
    const spwd* entry;
    while (count < names.size() && (entry = call_checking_enomem(status, getspent)) != nullptr) {
        if (is_internal_user(entry->sp_namp) != 0 ||
            security_get_vdc_from_username(entry->sp_namp) != context)
            continue;
        AccountName& name = names[count++];
        strncpy(name.text, entry->sp_namp, kNameSlot);
        name.truncated = name.text[kNameSlot - 1] != '\0';
        name.text[kNameSlot - 1] = '\0';
    }
    endspent();
    if (status != SECURITY_OK) syslog(LOG_ERR, "users of context %d were not all found: no memory", context);
    return count;
}

bool is_plain_word(const char* name) {
    constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-#";
    // Refuse an option, a comment, "." and "..", and the empty name, which stands for all home directories.
    if (*name == '\0' || *name == '-' || *name == '#' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return false;
    const size_t plain = strspn(name, kPlain);
    return name[plain] == '\0' || strcmp(name + plain, "$") == 0;
}

// Returns the path if the file is ours alone or can be replaced by a new one, else null: the output then goes
// to our own stream. Other users may have created a file or a link under this name in /tmp.
const char* safe_output_path(const char* path) {
    struct stat info;
    const bool ours =
        lstat(path, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_nlink == 1;
    return ours || replace_with_empty_file(path, 0777) ? path : nullptr;
}

// Formats and runs a command. Returns the result of security_conf_system(), or -1, with nothing run, if the
// command does not fit its buffer.
__attribute__((format(printf, 1, 2))) int32_t run(const char* format, ...) {
    char command[kCommand];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(command, sizeof command, format, arguments);
    va_end(arguments);
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof command;
    return fits ? security_conf_system(command, safe_output_path(kOut), safe_output_path(kErr)) : -1;
}

void remove(const AccountName& listed) {
    const char* name = listed.text;
    int32_t result = -1;
    if (is_plain_word(name) && !(listed.truncated && getpwnam(name) != nullptr)) {
        run("rm -fr /bootflash/home/%s /tmp/home/%s", name, name);
        result = run("userdel -r %s", name);
    }
    // The exit status of userdel does not matter; only a failure to run it counts.
    if (result >= 0)
        syslog(LOG_INFO, "deleted user %s", name);
    else
        syslog(LOG_ERR, "user delete failed for: %s return value: %d", name, result);
}

}  // namespace
}  // namespace quill

void security_del_vdc_users_for_vdc(int32_t vdc) {
    std::array<quill::AccountName, quill::kMaxUsers> names;
    const size_t count = quill::collect(vdc, names);
    for (size_t i = 0; i < count; ++i) quill::remove(names[i]);
}

void security_del_vdc_users() { security_del_vdc_users_for_vdc(sysmgrcmn_vdc_id_get()); }
