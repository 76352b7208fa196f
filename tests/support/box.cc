#include "tests/support/box.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

Box::Box() {
    const char* base = getenv("TMPDIR");
    root_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/quill-XXXXXX";
    if (mkdtemp(root_.data()) == nullptr) throw std::runtime_error("cannot create a folder like " + root_);
    chmod(root_.c_str(), 0755);  // other users must reach the socket
    setenv("QUILL_STATE_DIR", state().c_str(), 1);
    setenv("QUILL_RUNTIME_DIR", run().c_str(), 1);
}

Box::~Box() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void write_file(const std::string& path, const std::string& bytes, unsigned mode) {
    std::ofstream(path, std::ios::binary) << bytes;
    if (chmod(path.c_str(), mode) != 0) ADD_FAILURE() << path << ": " << strerror(errno);
}

std::string mode_of(const std::string& path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) return "none";
    char text[8];
    snprintf(text, sizeof text, "%04o", info.st_mode & 07777u);
    return text;
}

std::map<std::string, std::string> files_in(const std::string& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.is_regular_file()) files[entry.path().filename()] = read_file(entry.path());
    return files;
}
