// Private folders in /tmp, and a private /tmp for the library, which uses files of fixed names there to check
// and convert SSH keys: any user could create these files, or hold the lock around them.
#pragma once

#include <sys/mman.h>

#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <type_traits>

namespace quill::cli {

// A new folder in /tmp with mode 0700; the destructor deletes it with its contents.
class OwnFolder {
 public:
    OwnFolder();
    ~OwnFolder();
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;

    bool made() const { return made_; }  // if not, the constructor has left errno
    const char* path() const { return path_; }
    std::string file(const char* name) const { return std::string(path_) + "/" + name; }

 private:
    char path_[sizeof "/tmp/quillsec-XXXXXX"] = "/tmp/quillsec-XXXXXX";
    bool made_;
};

// An object in memory that is shared with child processes: zero at first, wiped when destroyed.
template <class Object>
class Shared {
    static_assert(std::is_trivially_copyable_v<Object>);

 public:
    Shared()
        : address_(mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (address_ == MAP_FAILED) throw std::bad_alloc();
    }
    ~Shared() {
        explicit_bzero(address_, sizeof(Object));
        munmap(address_, sizeof(Object));
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    Object* operator->() const { return static_cast<Object*>(address_); }
    Object& operator*() const { return *static_cast<Object*>(address_); }

 private:
    void* address_;
};

// Calls `work` with the path of a file that does not exist yet, in a new folder with mode 0700. If the system
// permits a new mount namespace, `work` runs in a child process for which that folder is /tmp; it must return
// its results in Shared objects. If not, it runs in this process, as soon as the lock on /tmp is free and no
// file of another user has one of the library's names. Throws Failure: Exit::kBusy if another process holds
// the lock for 5 seconds, kNotPermitted if another user's file has such a name, kFailed if the child process
// dies.
void with_private_tmp(const std::function<void(const std::string& path)>& work);

}  // namespace quill::cli
