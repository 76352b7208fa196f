// The homes of deleted accounts.
//
// A home may contain millions of files, or files that cannot be removed. So the home of a deleted account is
// only renamed, which takes no time and cannot fail half-way, into a folder that only root can enter. Its
// contents are removed there while the daemon serves requests.
#pragma once

#include <chrono>

#include "base/home_folder.h"

namespace quill {

// Renames the home of a deleted account, whatever kind of file it is; never follows symbolic links. If it
// cannot be renamed (a mount point, for example), removes its contents where they are, for at most two
// seconds, and logs why. Returns true if nothing has the home's path now.
bool set_home_aside(const char* stored);

// Removes the mail of a deleted account, unless the file belongs to another account.
void remove_mail(const char* stored);

// Starts or continues the removal of renamed homes, which goes on after this returns, and waits for it at
// most `time`. Returns true if something is left to remove. What cannot be removed, or not within ten
// minutes, is logged, stays, and is tried again by the next daemon.
bool remove_old_homes(std::chrono::milliseconds time);

}  // namespace quill
