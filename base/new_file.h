// Files of fixed names in directories that everybody can write to, such as /tmp.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace quill {

// Replaces `path` with a new file owned by us, opened for writing; never follows a symbolic link. The sticky
// bit of the directory then keeps other users from replacing it again. Returns the descriptor, owned by the
// caller, or -1 with errno on failure, as when the existing file belongs to somebody else.
inline int replace_file(const char* path, mode_t mode) {
    unlink(path);
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

// Replaces `path` with an empty file and closes it. Returns false with errno on failure.
inline bool replace_with_empty_file(const char* path, mode_t mode) {
    const int descriptor = replace_file(path, mode);
    return descriptor >= 0 && close(descriptor) == 0;
}

}  // namespace quill
