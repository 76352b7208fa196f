// File names on the command line: a path, or a file on a device of this system like "bootflash:/a.pem".
#pragma once

#include <string>

#include "cli/failure.h"

namespace quill::cli {

struct NamedFile {
    std::string name;  // as given
    std::string path;  // for open(2)
    bool on_device;

    std::string object() const;  // "file 'a.pem'", for messages
};

// A name with an unknown device is taken as a path. Throws Failure if the resulting path is too long.
NamedFile file_named(const std::string& name);

// Returns the failure of opening, reading or writing a file, by errno: "file 'a.pem': no such file". A
// missing file is Exit::kNoSuchObject, missing permissions are kNotPermitted, all else is kFailed.
Failure file_failure(const std::string& name, int error);

}  // namespace quill::cli
