// Files that are read or written as a whole.
//
// Functions that return a descriptor (owned by the caller) return -1 with errno on failure, those that return
// bool return false with errno. None of those that write follows a symbolic link in the last component of the
// path.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/secret_bytes.h"

namespace quill {

// Creates a file, which must not exist, for writing. The umask applies to its mode.
inline int create_file(const char* path, mode_t mode) {
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

// Returns true if both describe one file, not two of the same name.
inline bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Replaces `path` with a new file owned by us, opened for writing. In a directory that everybody can write
// to, such as /tmp, the sticky bit then keeps other users from replacing it again. Fails if there is a file
// that cannot be removed, as the sticky bit prevents for a file of another user.
inline int replace_file(const char* path, mode_t mode) {
    unlink(path);
    return create_file(path, mode);
}

// Replaces `path` with an empty file and closes it.
inline bool replace_with_empty_file(const char* path, mode_t mode) {
    const int descriptor = replace_file(path, mode);
    return descriptor >= 0 && close(descriptor) == 0;
}

// Opens a file whose only purpose is to be locked, and creates it (mode 0600) if it is missing.
inline int open_lock_file(const std::string& path) {
    return open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// Reads from `descriptor` until its end or until there are `limit` bytes. `bytes` becomes what was read.
bool read_up_to(int descriptor, size_t limit, SecretBytes& bytes);

// Reads a regular file of at most `limit` bytes, else fails with EFBIG. Of a file that grows meanwhile, reads
// as many bytes as it had before.
bool read_regular_file(int descriptor, size_t limit, SecretBytes& bytes);

// Writes all of the bytes.
bool write_all(int descriptor, std::string_view bytes);

// A new file that stays only if keep() or rename_to() succeeds; else the destructor removes it. Both of them
// close the file.
class NewFile {
 public:
    enum Existing { kRefuse, kReplace };

    // Creates the file with create_file() or replace_file(). On failure, converts to false, with errno.
    NewFile(std::string path, mode_t mode, Existing existing = kRefuse);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    explicit operator bool() const { return made_; }
    int get() const { return descriptor_.get(); }

    bool write(std::string_view bytes) { return write_all(get(), bytes); }
    bool sync() { return fsync(get()) == 0; }
    bool keep();
    bool rename_to(const std::string& path);

 private:
    bool finish();

    const std::string path_;
    Descriptor descriptor_;
    bool made_;
};

}  // namespace quill
