// Account names that are reserved for the system: one per line of a file, read once per process.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string>

#include "base/descriptor.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kList[] = "/tovo/etc/quillsecurity/internalusers";

// Returns the text of the file: empty if it cannot be opened, and as far as it could be read.
std::string read_list() {
    const Descriptor file(open(kList, O_RDONLY | O_CLOEXEC));
    std::string text;
    char chunk[4096];
    ssize_t got;
    while ((got = read(file.get(), chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(got));
    return text;
}

// Returns the text of the list, or null if memory ran out; the next call then tries again. The text is never
// freed, so that it can be used while the process exits.
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
    if (line == nullptr) return 1;  // better to refuse an ordinary account than to remove one of the system's
    while (*line != '\0') {
        const size_t line_length = strcspn(line, "\n");
        if (line_length == length && memcmp(line, name, length) == 0) return 1;
        line += line_length;
        if (*line == '\n') ++line;
    }
    return 0;
}
