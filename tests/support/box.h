// A folder of a test's own, and looks at what lies in it.
#pragma once

#include <map>
#include <string>

// Below $TMPDIR, gone with the object. While it lives, the environment names its `state` and `run` folders as
// those of the store and of the daemon; neither exists yet.
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

// Permission bits in octal, like "0600"; "none" where nothing has this name.
std::string mode_of(const std::string& path);

// Every file directly in the folder, by name, with its bytes.
std::map<std::string, std::string> files_in(const std::string& folder);
