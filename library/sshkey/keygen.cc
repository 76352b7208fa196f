#include "library/sshkey/keygen.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/file.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr mode_t kPrivateMode = 0600;

}  // namespace

KeygenLock::KeygenLock() : tmp_(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr timespec kStep{0, 10'000'000};
    for (int steps = 1000; steps > 0 && flock(tmp_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
         --steps)
        nanosleep(&kStep, nullptr);
}

bool is_safe_path(const char* path) {
    constexpr char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:=@%#~";
    const size_t length = strnlen(path, kLongestPath + 1);
    // Refuse a leading '#', which starts a comment, a leading '~', a home directory, and "-", standard input.
    return length != 0 && length <= kLongestPath && strspn(path, kPlain) == length && *path != '#' &&
           *path != '~' && strcmp(path, "-") != 0;
}

bool run_keygen(const char* option, const char* path) {
    char command[sizeof "ssh-keygen -x -f " + kLongestPath];
    const int length = snprintf(command, sizeof command, "ssh-keygen %s -f %s", option, path);
    return length > 0 && static_cast<size_t>(length) < sizeof command &&
           replace_with_empty_file(kKeygenOutput, kPrivateMode) &&
           replace_with_empty_file(kKeygenErrors, kPrivateMode) &&
           security_conf_system(command, kKeygenOutput, kKeygenErrors) >= 0;
}

void remove_keygen_output() {
    unlink(kKeygenOutput);
    unlink(kKeygenErrors);
}

bool write_temporary_key(const char* text) {
    Descriptor file(replace_file(kTemporaryKey, kPrivateMode));
    if (!file) return false;
    const size_t length = strlen(text);
    const bool written = write(file.get(), text, length) == static_cast<ssize_t>(length);
    if (close(file.release()) == 0 && written) return true;
    unlink(kTemporaryKey);
    return false;
}

TemporaryKeyRemover::~TemporaryKeyRemover() { unlink(kTemporaryKey); }

}  // namespace quill
