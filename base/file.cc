#include "base/file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace quill {

bool read_up_to(int descriptor, size_t limit, SecretBytes& bytes) {
    bytes.resize(limit);
    size_t used = 0;
    while (used < limit) {
        const ssize_t got = read(descriptor, bytes.data() + used, limit - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        used += static_cast<size_t>(got);
    }
    bytes.resize(used);
    return true;
}

bool read_regular_file(int descriptor, size_t limit, SecretBytes& bytes) {
    struct stat facts;
    if (fstat(descriptor, &facts) != 0) return false;
    if (S_ISREG(facts.st_mode) && std::cmp_less_equal(facts.st_size, limit))
        return read_up_to(descriptor, static_cast<size_t>(facts.st_size), bytes);
    errno = EFBIG;
    return false;
}

bool write_all(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

NewFile::NewFile(std::string path, mode_t mode, Existing existing)
    : path_(std::move(path)),
      descriptor_(existing == kReplace ? replace_file(path_.c_str(), mode)
                                       : create_file(path_.c_str(), mode)),
      made_(static_cast<bool>(descriptor_)) {}

NewFile::~NewFile() {
    if (!made_) return;
    const int kept = errno;
    unlink(path_.c_str());
    errno = kept;
}

// Some file systems report a failed write only when the file is closed.
bool NewFile::finish() { return close(descriptor_.release()) == 0; }

bool NewFile::keep() {
    if (finish()) made_ = false;
    return !made_;
}

bool NewFile::rename_to(const std::string& path) {
    if (finish() && rename(path_.c_str(), path.c_str()) == 0) made_ = false;
    return !made_;
}

}  // namespace quill
