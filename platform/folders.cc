#include "platform/folders.h"

#include <cstdlib>
#include <new>

#include "base/context_name.h"
#include "quillplatform/sysmgr.h"

namespace quill {
namespace {

std::string from_environment(const char* variable, const char* default_path) {
    const char* path = getenv(variable);
    return path != nullptr && *path != '\0' ? path : default_path;
}

std::string of_this_context(const std::string& shared) {
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context < kDefaultContext) throw std::bad_alloc();
    return context == kDefaultContext ? shared : shared + "/vdc_" + std::to_string(context);
}

}  // namespace

std::string shared_runtime_directory() { return from_environment("QUILL_RUNTIME_DIR", "/run/quillsecurity"); }
std::string shared_state_directory() { return from_environment("QUILL_STATE_DIR", "/var/lib/quillsecurity"); }
std::string runtime_directory() { return of_this_context(shared_runtime_directory()); }
std::string state_directory() { return of_this_context(shared_state_directory()); }

}  // namespace quill
