#include "sshkey/key_text.h"

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

#include "common/wiped.h"

namespace quill {
namespace {

constexpr size_t kMarker = 1024;  // no tool takes as much as this for one

// /dev/null, which many a script takes for an empty file.
bool is_null(const struct stat& facts) { return S_ISCHR(facts.st_mode) && facts.st_rdev == makedev(1, 3); }

}  // namespace

void CloseFile::operator()(FILE* file) const {
    fclose(file);
    OPENSSL_cleanse(buffer, kFileBuffer);
    delete[] buffer;
}

File open_key_file(const char* path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return nullptr;
    struct stat facts;
    const bool finite = fstat(descriptor, &facts) == 0 && (S_ISREG(facts.st_mode) || is_null(facts));
    FILE* file = finite ? fdopen(descriptor, "r") : nullptr;
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
    const QuietErrors quiet;
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

// A carriage return and a NUL end a line too: readers that differ there must not see a marker that was missed
// here.
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
    Wiped<std::array<char, 4 * kMarker>> window;
    size_t length = 0;
    while (const size_t got = fread(window.data() + length, 1, window.size() - length, file)) {
        length += got;
        if (holds_private_key({window.data(), length})) return true;
        // A marker across the end of this window is whole in the next.
        const size_t kept = std::min(length, kMarker);
        memmove(window.data(), window.data() + length - kept, kept);
        length = kept;
    }
    return ferror(file) != 0;
}

}  // namespace quill
