// Hooks: the programs by which the daemon applies settings to this system. Each is a file that can be
// replaced. It is run without a shell, with the directory of the settings as its argument.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace quill {

// Returns the path of the hook of this name: in /etc/quillsecurity/hooks, for hooks of this system, or else
// in ../libexec/quillsecurity, relative to the program. Returns "" if neither has an executable file of this
// name.
std::string find_hook(const std::string& name);

// Starts a hook with one argument and does not wait for it. Returns false with errno if it could not be
// started.
//
// Hooks run one at a time, but not always in the order in which they were started: each applies the settings
// that are valid when it runs. So at most one run of each hook waits for its turn; while one does, another
// start changes nothing. The argument of a hook must always be the same. Runs that wait when this process
// ends are dropped. A hook has its own session and an environment of PATH and LC_ALL. After `limit`, it is
// killed with all that it started. Its exit status and its output are logged.
bool start_hook(const std::string& path, const std::string& argument,
                std::chrono::seconds limit = std::chrono::seconds(30));

// Replaces a file, with this mode, once all of it is written under another name. Returns false with errno on
// failure; then nothing has changed.
bool write_file(const std::string& path, std::string_view bytes, unsigned mode);

}  // namespace quill
