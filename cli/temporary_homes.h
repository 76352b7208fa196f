// /tmp/home, where the removal of a context's users deletes a folder for each of them.
#pragma once

namespace quill::cli {

// Makes sure that /tmp/home is a folder of root's that root alone can write, so that no path below it leads
// anywhere else while root deletes there. Whatever else has the name, such as a link or a folder of another
// user's, is renamed to home.XXXXXXXX beside it, which the system's log tells; a folder of root's that others
// can write is closed to them. Where there is no /tmp nothing is done. Throws Failure when the folder cannot
// be made safe: /tmp is then not root's, others can rename what is in it, or the file system refuses.
void secure_temporary_homes();

}  // namespace quill::cli
