#include "daemon/routes.h"

#include "quillsecurity.h"

namespace quill {
namespace {

uint32_t enable_info(uint32_t store, uint32_t operation, void* record) {
    auto& info = *static_cast<security_enable_info*>(record);
    return enable_info_config(store, operation, static_cast<int32_t>(info.code), &info.value);
}

constexpr Route kRoutes[] = {
    {SECURITY_ENABLE_INFO_REQUEST, sizeof(security_enable_info), enable_info, Access::kEveryone,
     Access::kAdministrators},
};

}  // namespace

std::span<const Route> routes() { return kRoutes; }

}  // namespace quill
