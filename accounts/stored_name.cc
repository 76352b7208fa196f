#include "accounts/stored_name.h"

#include <cstdio>
#include <cstring>

#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kMark = '#';
constexpr int32_t kNoContext = INT32_MIN;  // two characters never spell it
constexpr size_t kSuffix = 4;              // "#NN#"

char user_name_buffer[132];
char file_name_buffer[1024];

template <size_t size>
char* map(char (&buffer)[size], const char* name) {
    const int context = sysmgrcmn_vdc_id_get();
    if (name == nullptr) name = "";
    if (context == kDefaultContext) {
        strncpy(buffer, name, size);
        buffer[size - 1] = '\0';
    } else {
        snprintf(buffer, size, "%s%c%02d%c", name, kMark, context, kMark);
    }
    return buffer;
}

}  // namespace

void cut_suffix(char* name) {
    const size_t length = strlen(name);
    if (length >= kSuffix) name[length - kSuffix] = '\0';
}

}  // namespace quill

int32_t security_get_vdc_from_username(const char* name) {
    const size_t length = name == nullptr ? 0 : strlen(name);
    if (length == 0 || name[length - 1] != quill::kMark) return quill::kDefaultContext;
    int context = 0;
    // Two characters at the most: nothing that could not be represented.
    if (length < 3 || sscanf(name + length - 3, "%2d", &context) != 1)  // NOLINT(cert-err34-c)
        return quill::kNoContext;
    return context;
}

char* security_get_system_username(const char* name) { return quill::map(quill::user_name_buffer, name); }

char* security_get_system_filename(const char* name) { return quill::map(quill::file_name_buffer, name); }
