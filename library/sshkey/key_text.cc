#include "library/sshkey/key_text.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/wiped.h"

namespace quill {
namespace {

constexpr size_t kLongestMarker = 1024;  // bytes; no tool accepts a longer one

// Returns true for /dev/null, which scripts use as an empty file.
bool is_dev_null(const struct stat& info) { return S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3); }

}  // namespace

void CloseFile::operator()(FILE* file) const {
    fclose(file);
    OPENSSL_cleanse(buffer, kFileBuffer);
    delete[] buffer;
}

File open_key_file(const char* path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return nullptr;
    struct stat info;
    const bool readable = fstat(descriptor, &info) == 0 && (S_ISREG(info.st_mode) || is_dev_null(info));
    FILE* file = readable ? fdopen(descriptor, "r") : nullptr;
    if (file == nullptr) {
        close(descriptor);
        return nullptr;
    }
    auto* buffer = new (std::nothrow) char[kFileBuffer];
    if (buffer == nullptr) {
        fclose(file);
        return nullptr;
    }
    setvbuf(file, buffer, _IOFBF, kFileBuffer);
    return File(file, CloseFile{buffer});
}

Certificate find_certificate(FILE* file) {
    const OpensslErrorScope quiet;
    errno = 0;
    const auto no_passphrase = [](char*, int, int, void*) { return -1; };
    return Certificate(PEM_read_X509(file, nullptr, no_passphrase, nullptr));
}

bool opens_private_key(std::string_view line) {
    for (const std::string_view marker : {"--BEGIN ", "-- BEGIN "}) {
        const size_t start = line.find(marker);
        if (start != line.npos && line.find("PRIVATE KEY", start) != line.npos) return true;
    }
    return false;
}

// Carriage returns and NULs also end a line: other readers may take them so, and must not find a marker that
// was not found here.
bool holds_private_key(std::string_view text) {
    constexpr std::string_view kEnds("\n\r\0", 3);
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(kEnds), text.size() - 1);
        if (opens_private_key(text.substr(0, end + 1))) return true;
        text.remove_prefix(end + 1);
    }
    return false;
}

bool holds_private_key(FILE* file) {
    Wiped<std::array<char, 4 * kLongestMarker>> window;
    size_t length = 0;
    while (const size_t got = fread(window.data() + length, 1, window.size() - length, file)) {
        length += got;
        if (holds_private_key({window.data(), length})) return true;
        // Keep the end of the window: a marker may continue in the next.
        const size_t kept = std::min(length, kLongestMarker);
        memmove(window.data(), window.data() + length - kept, kept);
        length = kept;
    }
    return ferror(file) != 0;
}

}  // namespace quill
