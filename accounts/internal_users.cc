// Names that belong to the system: one a line of a file, read when it is first asked for and never again.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kList[] = "/tovo/etc/quillsecurity/internalusers";

// The file's text, terminated. What cannot be read is empty, for as long as the process lives.
const char* read_list() {
    struct stat facts;
    if (stat(kList, &facts) != 0 || facts.st_size < 0) return "";
    const auto size = static_cast<size_t>(facts.st_size);
    auto* text = static_cast<char*>(calloc(1, size + 1));
    if (text == nullptr) return "";
    const int descriptor = open(kList, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return text;
    size_t filled = 0;
    while (filled < size) {
        const ssize_t got = read(descriptor, text + filled, size - filled);
        if (got <= 0) break;
        filled += static_cast<size_t>(got);
    }
    close(descriptor);
    return text;
}

}  // namespace
}  // namespace quill

uint32_t is_internal_user(const char* name) {
    static const char* const kNames = quill::read_list();
    const size_t length = name == nullptr ? 0 : strlen(name);
    if (length == 0) return 0;
    for (const char* line = kNames; *line != '\0';) {
        const size_t line_length = strcspn(line, "\n");
        if (line_length == length && memcmp(line, name, length) == 0) return 1;
        line += line_length;
        if (*line == '\n') ++line;
    }
    return 0;
}
