// The homes of the daemon's accounts.
//
// What lies in a home is its user's to arrange: millions of files, or something that cannot be removed. So
// the home of a deleted account only changes its name, which takes no time and cannot fail half-way, to one
// below a folder that root alone can enter. What is in it is removed there, beside the daemon's work.
#pragma once

#include <chrono>

#include "base/home_folder.h"

namespace quill {

// Takes the home of a deleted account away from its place, whatever it is; links are never followed. If it
// cannot be renamed (a mount point, for one), what is in it is removed where it is, within two seconds, and
// the log says why. Returns whether the place is free.
bool set_home_aside(const char* stored);

// Removes the mail of a deleted account, unless the file belongs to another account.
void remove_mail(const char* stored);

// Starts and watches the removal of what was set aside, and waits for it no longer than `time`; it goes on
// meanwhile. Returns whether there is more to do. What cannot be removed, or not in ten minutes, stays, with
// one line in the log, and is tried again by the next daemon.
bool remove_old_homes(std::chrono::milliseconds time);

}  // namespace quill
