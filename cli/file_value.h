// Files that the command line names: the user's own, or one on a device of this system, "bootflash:/a.pem".
#pragma once

#include <cstdint>
#include <string>

#include "cli/failure.h"

namespace quill::cli {

struct NamedFile {
    int32_t location;  // enum security_location; SECURITY_LOCATION_TEMPORARY for the user's own
    std::string path;  // starts with a slash on a device
};

// A name whose device this system does not have is one of the user's own files.
NamedFile file_named(const std::string& name);

// What is said of a file that could not be opened, read or written, by errno: "file 'a.pem': no such file".
Failure file_failure(const std::string& name, int error);

}  // namespace quill::cli
