// Names that belong to the system: one a line of a file, read when it is first asked for and never again.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string>

#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kList[] = "/tovo/etc/quillsecurity/internalusers";

struct ListFile {
    const int descriptor = open(kList, O_RDONLY | O_CLOEXEC);
    ListFile() = default;
    ~ListFile() {
        if (descriptor >= 0) close(descriptor);
    }
    ListFile(const ListFile&) = delete;
    ListFile& operator=(const ListFile&) = delete;
};

// The file's text. What cannot be read is empty, for as long as the process lives.
std::string read_list() {
    const ListFile file;
    std::string text;
    char chunk[4096];
    ssize_t got;
    while ((got = read(file.descriptor, chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<size_t>(got));
    return text;
}

// Null when memory ran out; the next call tries again. Never freed: a program may ask on its way out.
const char* names() try {
    static const std::string* const kNames = new std::string(read_list());
    return kNames->c_str();
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace
}  // namespace quill

uint32_t is_internal_user(const char* name) {
    const char* line = quill::names();
    const size_t length = name == nullptr ? 0 : strlen(name);
    if (length == 0) return 0;
    if (line == nullptr) return 1;  // rather refuse somebody's account than remove one of the system's own
    while (*line != '\0') {
        const size_t line_length = strcspn(line, "\n");
        if (line_length == length && memcmp(line, name, length) == 0) return 1;
        line += line_length;
        if (*line == '\n') ++line;
    }
    return 0;
}
