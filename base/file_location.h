// Files on the devices that clients may name: device names, directories and full paths.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity/ssh_keys.h"

namespace quill {

constexpr size_t kFilePath = 256;  // bytes of a path, terminator included

struct Device {
    int32_t location_type;  // enum security_location
    const char* name;       // in "NAME:PATH"
    const char* directory;
};

constexpr Device kDevices[] = {
    {SECURITY_LOCATION_BOOTFLASH, "bootflash", "/bootflash"},
    {SECURITY_LOCATION_VOLATILE, "volatile", "/volatile"},
    {SECURITY_LOCATION_SLOT0, "slot0", "/slot0"},
};

// Returns the device of a location, or null for a location that is on none.
inline const Device* device_of(int32_t location_type) {
    for (const Device& device : kDevices)
        if (device.location_type == location_type) return &device;
    return nullptr;
}

// Writes the full path of a file on the device to `whole_path`: the device's directory, then `path`, a buffer
// of kFilePath bytes that starts with a slash. If $SYSMGR_VDC_ID is set to a number other than 1,
// "/vdc_NUMBER" is first inserted before the path, in its buffer. Paths that are too long are cut.
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
