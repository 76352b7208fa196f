// The local account files (passwd, shadow, group, gshadow, subuid, subgid), read without the name service: a
// directory that is slow or gone must hold up nobody here, and its accounts are not the daemon's.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/process.h"

namespace quill {

enum class AccountFile { kPasswd, kShadow, kGroup, kGshadow, kSubuid, kSubgid };

const char* path_of(AccountFile file);

// A file's contents, wiped with the object.
struct FileText {
    FileText() = default;
    ~FileText();
    FileText(const FileText&) = delete;
    FileText& operator=(const FileText&) = delete;

    std::string bytes;
};

// Reads the open file `descriptor` to its end. False, with errno set, if that fails or it is larger than 64
// MiB.
bool read_whole(int descriptor, FileText& text);

// The lines of `text` whose first field is `name`, one after the other: the first one at or behind `from`,
// without its line break. Returns its offset, or npos if there is none.
size_t find_line(std::string_view text, std::string_view name, size_t from, std::string_view& line);

// What there is under a stored name. Files that do not exist have no lines, except that passwd must exist.
struct AccountRemains {
    bool known = true;  // false: a file could not be read, and the rest means nothing
    bool passwd = false, shadow = false, group = false, gshadow = false, subuid = false, subgid = false;
    bool home = false;
    bool ours = false;  // an account with the home that this daemon gives
    uid_t uid = 0;      // of an account of ours

    bool none() const { return known && !passwd && !group && !home && !has_leftover_lines(); }
    // Lines that mean nothing without an account or a group, and that no program of the system removes.
    bool has_leftover_lines() const { return shadow || (gshadow && !group) || subuid || subgid; }
};
AccountRemains remains_of(const char* stored);

// What the shadow file says of an account, shadow(5); -1 for an empty date.
struct ShadowEntry {
    std::string_view password;
    int32_t changed_days;
    int32_t expiry_days;
};
// False if there is no entry or it cannot be read. `text` owns the password.
bool read_shadow(const char* stored, FileText& text, ShadowEntry& entry);

// Whether any local account has this user number; true as well if the file cannot be read.
bool uid_is_used(uid_t uid);

// Which files have a name. Names are kept in memory until the files change, so that a look-up costs next to
// nothing: any client may ask for any name, as often as it likes.
struct AccountNames {
    bool known;   // false: a file could not be read
    bool passwd;  // there is an account
    bool shadow;  // there is a password entry, with or without an account
};
AccountNames find_account(const char* stored);

// Removes the lines of an account that is gone from a file that no program of the system edits for a missing
// account: shadow, gshadow, subuid or subgid. Owner and mode are kept; the file is replaced as a whole, under
// the locks that the system's programs use. False if that failed, with the reason in the log.
bool remove_lines(AccountFile file, const char* stored, Deadline deadline);

}  // namespace quill
