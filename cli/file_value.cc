#include "cli/file_value.h"

#include <fmt/format.h>

#include <cerrno>

#include "base/file_location.h"
#include "quillplatform/shell.h"

namespace quill::cli {
namespace {

std::string path_on(const Device& device, const std::string& path, const std::string& name) {
    char below[kFilePath] = "/", whole[kFilePath] = "";
    if (path.size() + 2 < sizeof below) {
        path.copy(below + 1, sizeof below - 2);
        complete_path(device, below, whole);
    }
    // A path that fills the buffer may have been cut.
    if (*whole != '\0' && strlen(whole) + 1 < sizeof whole) return whole;
    const std::string object = fmt::format("file '{}'", name);
    throw Failure{Exit::kInvalidValue, object, object + ": the name is too long", "copy it to a shorter one"};
}

}  // namespace

std::string NamedFile::object() const { return fmt::format("file '{}'", name); }

NamedFile file_named(const std::string& name) {
    char device[256], path[256];
    if (vsh_xml_parse_uri(name.c_str(), device, path) == 0) {
        for (const Device& known : kDevices)
            if (known.name == std::string(device)) return {name, path_on(known, path, name), true};
    }
    return {name, name, false};
}

Failure file_failure(const std::string& name, int error) {
    const std::string object = fmt::format("file '{}'", name);
    const bool missing = error == ENOENT || error == ENOTDIR;
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    const Exit exit = missing ? Exit::kNoSuchObject : denied ? Exit::kNotPermitted : Exit::kFailed;
    return {exit, object, fmt::format("{}: {}", object, error_text(error)),
            denied ? "run as root" : "check how it is spelled"};
}

}  // namespace quill::cli
