// Files that the command line names: the user's own, or one on a device of this system, "bootflash:/a.pem".
#pragma once

#include <string>

#include "cli/failure.h"

namespace quill::cli {

struct NamedFile {
    std::string name;  // as it was given
    std::string path;  // as the system knows it
    bool on_device;

    std::string object() const;  // "file 'a.pem'", for messages
};

// A name whose device this system does not have is one of the user's own files. Throws Failure for a name
// that does not fit.
NamedFile file_named(const std::string& name);

// What is said of a file that could not be opened, read or written, by errno: "file 'a.pem': no such file".
// One that is not there is Exit::kNoSuchObject.
Failure file_failure(const std::string& name, int error);

}  // namespace quill::cli
