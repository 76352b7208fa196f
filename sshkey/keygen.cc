#include "sshkey/keygen.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/file_made_anew.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr mode_t kOurs = 0600;

}  // namespace

KeygenLock::KeygenLock() : descriptor_(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr timespec kStep{0, 10'000'000};
    for (int steps = 1000; steps > 0 && flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
         --steps)
        nanosleep(&kStep, nullptr);
}

KeygenLock::~KeygenLock() {
    if (descriptor_ >= 0) close(descriptor_);
}

bool fits_command(const char* path) {
    constexpr char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:=@%#~";
    const size_t length = strnlen(path, kLongestPath + 1);
    // A word that begins with '#' is a comment, with '~' somebody's home; "-" alone is standard input.
    return length != 0 && length <= kLongestPath && strspn(path, kPlain) == length && *path != '#' &&
           *path != '~' && strcmp(path, "-") != 0;
}

bool run_keygen(const char* option, const char* path) {
    char command[sizeof "ssh-keygen -x -f " + kLongestPath];
    const int length = snprintf(command, sizeof command, "ssh-keygen %s -f %s", option, path);
    return length > 0 && static_cast<size_t>(length) < sizeof command && create_empty(kKeygenOutput, kOurs) &&
           create_empty(kKeygenErrors, kOurs) &&
           security_conf_system(command, kKeygenOutput, kKeygenErrors) >= 0;
}

void remove_keygen_output() {
    unlink(kKeygenOutput);
    unlink(kKeygenErrors);
}

bool write_temporary_key(const char* text) {
    const int descriptor = create_anew(kTemporaryKey, kOurs);
    if (descriptor < 0) return false;
    const size_t length = strlen(text);
    const bool written = write(descriptor, text, length) == static_cast<ssize_t>(length);
    if (close(descriptor) == 0 && written) return true;
    unlink(kTemporaryKey);
    return false;
}

TemporaryKey::~TemporaryKey() { unlink(kTemporaryKey); }

}  // namespace quill
