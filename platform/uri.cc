#include <cstring>

#include "quillplatform/shell.h"

namespace quill {
namespace {

constexpr size_t kPartSize = 256;

// Returns false if the part does not fit its buffer of kPartSize bytes.
bool copy_part(char* part, const char* from, size_t length) {
    if (length >= kPartSize) return false;
    memcpy(part, from, length);
    part[length] = '\0';
    return true;
}

}  // namespace
}  // namespace quill

int32_t vsh_xml_parse_uri(const char* uri, char* device, char* path) {
    const char* colon = strchr(uri, ':');
    const char* rest = colon == nullptr ? uri : colon + 1;
    if (*rest == '/') ++rest;
    const size_t device_length = colon == nullptr ? 0 : static_cast<size_t>(colon - uri);
    if (quill::copy_part(device, uri, device_length) && quill::copy_part(path, rest, strlen(rest))) return 0;
    *device = *path = '\0';
    return -1;
}
