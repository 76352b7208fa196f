// A file that the command line names and somebody else may own: opened once, bounded, and read through that
// one descriptor, so that what is judged is what is used whatever becomes of its name meanwhile.
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

    // Opens the file and reads it whole. A symbolic link, anywhere in the path, is followed only where it
    // belongs to root or the caller and so does its folder, which nobody else may write; kRefuseLast refuses
    // one that stands for the file itself in any case. Throws Failure: Exit::kNoSuchObject for a file that
    // is not there, kInvalidValue for one behind such a link, for anything that is no regular file (nothing
    // else is even opened) and for one of more than `limit` bytes, and what file_failure() makes of others.
    InputFile(const NamedFile& file, size_t limit, LastLink last = kFollowLast);

    std::string_view bytes() const { return view(bytes_); }

    // Deletes the file that was read: only while its name still stands for it, in the folder where it was
    // found. Throws Failure where that is not so.
    void remove() const;

 private:
    Failure refused(const std::string& what, std::string remedy) const;
    void find(LastLink last);
    void follow(int link, std::string& rest);
    void open_regular();
    void read_all(size_t limit);

    const NamedFile file_;
    Descriptor folder_;  // where it lies, O_PATH
    std::string name_;   // its name there
    Descriptor descriptor_;
    SecretBytes bytes_;
};

}  // namespace quill::cli
