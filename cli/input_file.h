// An input file, which may belong to another user. It is opened once and read completely, so that the bytes
// that were checked are the bytes that are used, even if another file takes its name meanwhile.
#pragma once

#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/secret_bytes.h"
#include "cli/file_value.h"

namespace quill::cli {

class InputFile {
 public:
    enum LastLink { kFollowLast, kRefuseLast };

    // Opens the file and reads it. A symbolic link anywhere in the path is followed only if the link and its
    // folder belong to root or the caller and nobody else can write to the folder. With kRefuseLast, the last
    // component must not be a link at all. Throws Failure: Exit::kInvalidValue for a link that is not
    // followed, for anything but a regular file (which is not even opened) and for more than `limit` bytes;
    // for other errors that of file_failure().
    InputFile(const NamedFile& file, size_t limit, LastLink last = kFollowLast);

    std::string_view bytes() const { return view(bytes_); }

    // Deletes the file. Throws Failure, without deleting anything, if its name now belongs to another file.
    void remove() const;

 private:
    Failure refused(const std::string& what, std::string remedy) const;
    void find(LastLink last);
    void follow(int link, std::string& rest);
    void open_regular();
    void read_all(size_t limit);

    const NamedFile file_;
    Descriptor folder_;  // that contains the file; O_PATH
    std::string name_;   // of the file in the folder
    Descriptor descriptor_;
    SecretBytes bytes_;
};

}  // namespace quill::cli
