// The local account files (passwd, shadow, group, gshadow, subuid, subgid), read without the name service:
// the accounts of a directory service are not the daemon's, and a slow service must not block it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/deadline.h"
#include "base/secret_bytes.h"

namespace quill {

enum class AccountFile { kPasswd, kShadow, kGroup, kGshadow, kSubuid, kSubgid };

const char* path_of(AccountFile file);

// The largest account file that is read, in bytes.
constexpr size_t kLargestAccountFile = 64 << 20;

// Finds the first line at or after offset `from` whose first field is `name`. Returns its offset, or npos if
// there is none; `line` is the line without its line break.
size_t find_line(std::string_view text, std::string_view name, size_t from, std::string_view& line);

// What exists under a stored name. A missing file counts as empty, except passwd.
struct AccountRemains {
    bool known = true;  // false: a file could not be read, and the other members mean nothing
    bool passwd = false, shadow = false, group = false, gshadow = false, subuid = false, subgid = false;
    bool home = false;
    bool ours = false;  // an account whose home is home_of() it, and not root's
    uid_t uid = 0;      // of such an account

    bool none() const { return known && !passwd && !group && !home && !has_leftover_lines(); }
    // Lines that mean nothing without an account or a group, and that the system's programs do not remove.
    bool has_leftover_lines() const { return shadow || (gshadow && !group) || subuid || subgid; }
};
AccountRemains remains_of(const char* stored);

// The entry of an account in the shadow file, shadow(5); dates in days since 1970, -1 for an empty one.
struct ShadowEntry {
    std::string_view password;
    int32_t changed_days;
    int32_t expiry_days;
};
// Returns false if there is no entry or it cannot be read. `entry` points into `text`.
bool read_shadow(const char* stored, SecretBytes& text, ShadowEntry& entry);

// Returns true if any local account has this user ID, and if the file cannot be read.
bool uid_is_used(uid_t uid);

// Which files contain a name. The names are cached until the files change, because any client may look up any
// name at any rate.
struct AccountNames {
    bool known;   // false: a file could not be read
    bool passwd;  // there is an account
    bool shadow;  // there is a password entry, with or without an account
};
AccountNames find_account(const char* stored);

// Removes the lines of a deleted account from shadow, gshadow, subuid or subgid, where the system's programs
// edit only lines of existing accounts. Replaces the file, with the same owner and mode, under the locks of
// daemon/account_locks.h. Returns false on failure, which is logged; the file is unchanged then.
bool remove_lines(AccountFile file, const char* stored, Deadline deadline);

}  // namespace quill
