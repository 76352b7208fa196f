// Files of fixed names in folders where everybody can put things, such as /tmp.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace quill {

// A new file of ours, open for writing, in the place of whatever had its name: a link is never followed, and
// once the file is ours the folder's sticky bit keeps others from replacing it. -1 where that is not
// possible.
inline int create_anew(const char* path, mode_t mode) {
    unlink(path);
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

// The same with nothing in it, closed.
inline bool create_empty(const char* path, mode_t mode) {
    const int descriptor = create_anew(path, mode);
    return descriptor >= 0 && close(descriptor) == 0;
}

}  // namespace quill
