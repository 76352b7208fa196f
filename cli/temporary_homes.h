// /tmp/home: the library deletes a folder below it for each user of a context that is removed.
#pragma once

namespace quill::cli {

// Makes sure that /tmp/home is a folder that belongs to root and that only root can write to, so that no path
// below it is a link to somewhere else while root deletes there. Anything else with this name, such as a link
// or another user's folder, is renamed to /tmp/home.XXXXXXXX with a line in the system's log; a folder of
// root that others can write to gets mode 0755. Does nothing if there is no /tmp. Throws Failure if this is
// not possible: others can rename files in /tmp, or a system call fails.
void secure_temporary_homes();

}  // namespace quill::cli
