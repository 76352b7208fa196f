// A store's file outside of SQLite: creation, and the checks before SQLite may open it.
#pragma once

#include <cstdint>
#include <string>

namespace quill {

struct FileCheck {
    uint32_t status;     // a PSS status
    const char* detail;  // for the log, where the status is a failure
};

// Checks that `path` is a regular file with the header of a store, owned by this process's user, and takes
// away all permissions of others. The file is read without SQLite, which would recover (and so write to) the
// database of another program. Returns PSS_NO_STORE if there is no file. Never follows a symlink.
FileCheck check_sqlite_file(const std::string& path);

// Creates an empty store at `path` with mode 0600, unless something has that name already. On success, the
// file and its name are on disk. A crash leaves either no file or a complete, empty store; what remains of an
// interrupted creation is removed by the next one. Returns a PSS status.
uint32_t create_sqlite_file(const std::string& path);

}  // namespace quill
