// A temporary folder for one test, and helpers to read and write files.
#pragma once

#include <map>
#include <string>

// A new folder in $TMPDIR (or /tmp), removed by the destructor. The constructor points $QUILL_STATE_DIR and
// $QUILL_RUNTIME_DIR at its subfolders `state` and `run`, which it does not create.
class Box {
 public:
    Box();
    ~Box();
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;

    std::string operator/(const std::string& name) const { return root_ + "/" + name; }
    std::string state() const { return *this / "state"; }
    std::string run() const { return *this / "run"; }

 private:
    std::string root_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes, unsigned mode = 0600);

// Returns the permission bits in octal, like "0600", or "none" if nothing has this name.
std::string mode_of(const std::string& path);

// Returns the contents of all regular files directly in the folder, by name.
std::map<std::string, std::string> files_in(const std::string& folder);
