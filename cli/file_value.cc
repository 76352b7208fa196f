#include "cli/file_value.h"

#include <fmt/format.h>

#include <cerrno>

#include "common/file_location.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
NamedFile file_named(const std::string& name) {
    char device[256], path[256];
    if (vsh_xml_parse_uri(name.c_str(), device, path) == 0) {
        for (const Device& known : kDevices)
            if (known.name == std::string(device)) return {known.location_type, std::string("/") + path};
    }
    return {SECURITY_LOCATION_TEMPORARY, name};
}

Failure file_failure(const std::string& name, int error) {
    const std::string object = fmt::format("file '{}'", name);
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    const Exit exit = error == ENOENT ? Exit::kNoSuchObject : denied ? Exit::kNotPermitted : Exit::kFailed;
    return {exit, object, fmt::format("{}: {}", object, error_text(error)),
            denied ? "run as root" : "check how it is spelled"};
}

}  // namespace quill::cli
