// Where a client's file lies: on a device, below the directory of the process's context.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity/ssh_keys.h"

namespace quill {

constexpr size_t kFilePath = 256;

struct Device {
    int32_t location_type;
    const char* name;
    const char* directory;
};

constexpr Device kDevices[] = {
    {SECURITY_LOCATION_BOOTFLASH, "bootflash", "/bootflash"},
    {SECURITY_LOCATION_VOLATILE, "volatile", "/volatile"},
    {SECURITY_LOCATION_SLOT0, "slot0", "/slot0"},
};

// Null for a location that is on no device.
inline const Device* device_of(int32_t location_type) {
    for (const Device& device : kDevices)
        if (device.location_type == location_type) return &device;
    return nullptr;
}

// The whole path of a file on the device. `path`, a buffer of kFilePath bytes, is first put below the
// directory of this process's context, where that is not the default one. A path that is too long is cut.
inline void complete_path(const Device& device, char* path, char (&whole_path)[kFilePath]) {
    const char* variable = getenv("SYSMGR_VDC_ID");
    const long number = variable == nullptr ? 1 : strtol(variable, nullptr, 10);
    const auto context = static_cast<int32_t>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
    if (context != 1) {
        char given[kFilePath];
        const size_t length = strnlen(path, kFilePath);
        memcpy(given, path, length);
        snprintf(path, kFilePath, "/vdc_%d%.*s", context, static_cast<int>(length), given);
    }
    snprintf(whole_path, kFilePath, "%s%s", device.directory, path);
}

}  // namespace quill
