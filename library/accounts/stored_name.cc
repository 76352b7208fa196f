// The stored names of accounts and files, as the calling process's context needs them.
#include "base/context_name.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

char user_name_buffer[132];
char file_name_buffer[1024];

template <size_t size>
char* stored_name(char (&buffer)[size], const char* name) {
    make_stored_name(buffer, name == nullptr ? "" : name, sysmgrcmn_vdc_id_get());
    return buffer;
}

}  // namespace
}  // namespace quill

int32_t security_get_vdc_from_username(const char* name) {
    return name == nullptr ? quill::kDefaultContext : quill::context_of(name);
}

char* security_get_system_username(const char* name) {
    return quill::stored_name(quill::user_name_buffer, name);
}

char* security_get_system_filename(const char* name) {
    return quill::stored_name(quill::file_name_buffer, name);
}
