// Hooks: the programs by which the daemon puts settings into effect on this system. Each is a file that can
// be replaced; it is run as it is, without a shell around it, and learns where the settings lie.
#pragma once

#include <chrono>
#include <string>

namespace quill {

// Where the hook of this name lies: in /etc/quillsecurity/hooks, the place for a system's own, else beside
// the programs, in ../libexec/quillsecurity. Empty where neither has one that can be run.
std::string find_hook(const std::string& name);

// Starts a hook with one argument and does not wait for it. Returns false with errno set when it could not be
// started.
//
// Hooks run one at a time, but not always in the order in which they were started: each does what the
// settings say when it runs. So of one program at most one waits for its turn, and starting it once more
// changes nothing while it does; its argument must always be the same. Whichever waits when this process ends
// does not run. A hook has a session of its own and a plain environment, and is killed with all it started
// when the time is up. How it ended and what it said goes to the log.
bool start_hook(const std::string& path, const std::string& argument,
                std::chrono::seconds limit = std::chrono::seconds(30));

// Writes a whole file and gives it its name, with this mode, when it is complete. False with errno set.
bool write_file(const std::string& path, const std::string& bytes, unsigned mode);

}  // namespace quill
