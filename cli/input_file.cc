// The path is resolved here, component by component, because no flag of open(2) takes the owner of a link
// into account. Each folder on the way is held open, so that nobody can replace what was checked.
#include "cli/input_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/file.h"
#include "cli/words.h"

namespace quill::cli {
namespace {

constexpr int kMostLinks = 16;
constexpr int kFolder = O_PATH | O_DIRECTORY | O_CLOEXEC;

bool of_root_or_caller(const struct stat& facts) { return facts.st_uid == 0 || facts.st_uid == geteuid(); }

// Returns true if only root and the caller can have made this link and can replace it.
bool is_trusted(const struct stat& link, int folder) {
    struct stat around;
    return of_root_or_caller(link) && fstat(folder, &around) == 0 && of_root_or_caller(around) &&
           (around.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Removes the first component from the path and returns it; empty if there is none.
std::string take_component(std::string& path) {
    const size_t start = std::min(path.find_first_not_of('/'), path.size());
    const size_t end = std::min(path.find('/', start), path.size());
    std::string component = path.substr(start, end - start);
    path.erase(0, std::min(path.find_first_not_of('/', end), path.size()));
    return component;
}

std::string target_of(int link) {
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link, "", target, sizeof target);
    return {target, length > 0 ? static_cast<size_t>(length) : 0};
}

}  // namespace

InputFile::InputFile(const NamedFile& file, size_t limit, LastLink last) : file_(file) {
    find(last);
    open_regular();
    read_all(limit);
}

Failure InputFile::refused(const std::string& what, std::string remedy) const {
    return {Exit::kInvalidValue, file_.object(), fmt::format("{}: {}", file_.object(), what),
            std::move(remedy)};
}

// Prepends the target of a link to the rest of the path.
void InputFile::follow(int link, std::string& rest) {
    std::string target = target_of(link);
    if (target.starts_with('/')) folder_.reset(open("/", kFolder));
    if (!rest.empty()) target.append("/").append(rest);
    rest = std::move(target);
}

void InputFile::find(LastLink last) {
    std::string rest = file_.path;
    folder_.reset(open(rest.starts_with('/') ? "/" : ".", kFolder));
    for (int links = 0; folder_;) {
        name_ = take_component(rest);
        Descriptor next(openat(folder_.get(), name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat facts;
        if (!next || fstat(next.get(), &facts) != 0) break;
        const bool is_last = rest.empty();
        if (S_ISLNK(facts.st_mode)) {
            const bool refused_last = is_last && last == kRefuseLast;
            if (++links > kMostLinks || refused_last || !is_trusted(facts, folder_.get())) {
                throw refused(
                    fmt::format("'{}' in its path is a symbolic link that is not followed", printable(name_)),
                    "name the file by its real path");
            }
            follow(next.get(), rest);
            continue;
        }
        if (is_last) return;
        if (!S_ISDIR(facts.st_mode)) throw file_failure(file_.name, ENOTDIR);
        folder_ = std::move(next);
    }
    throw file_failure(file_.name, errno);
}

// Opening a device or a pipe can have side effects, so the type is checked before, and again after opening.
void InputFile::open_regular() {
    struct stat facts;
    if (fstatat(folder_.get(), name_.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
        throw file_failure(file_.name, errno);
    if (S_ISREG(facts.st_mode)) {
        descriptor_.reset(
            openat(folder_.get(), name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!descriptor_ || fstat(descriptor_.get(), &facts) != 0) throw file_failure(file_.name, errno);
    }
    if (!S_ISREG(facts.st_mode)) throw refused("it is no regular file", "give a regular file");
}

void InputFile::read_all(size_t limit) {
    struct stat facts;
    if (fstat(descriptor_.get(), &facts) != 0) throw file_failure(file_.name, errno);
    const auto size = static_cast<uint64_t>(facts.st_size);
    if (size > limit) throw refused("it is too long", fmt::format("use at most {} bytes", limit));
    // One byte more, to notice that it grows.
    if (!read_up_to(descriptor_.get(), static_cast<size_t>(size) + 1, bytes_))
        throw file_failure(file_.name, errno);
    if (bytes_.size() > size) throw refused("it grew while it was read", "try again when it is complete");
}

void InputFile::remove() const {
    struct stat opened, named;
    if (fstat(descriptor_.get(), &opened) != 0 ||
        fstatat(folder_.get(), name_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0)
        throw file_failure(file_.name, errno);
    if (!same_file(opened, named))
        throw refused("another file has its name now, which was not deleted", "find out who replaces it");
    if (unlinkat(folder_.get(), name_.c_str(), 0) != 0) throw file_failure(file_.name, errno);
}

}  // namespace quill::cli
