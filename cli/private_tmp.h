// Folders of the program's own in /tmp, and a /tmp of its own for the library, whose work on SSH keys goes
// through files of fixed names there: any user can hold these names or the lock around them.
#pragma once

#include <sys/mman.h>

#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <type_traits>

namespace quill::cli {

// A new folder in /tmp that only the caller can enter; deleted with all that is in it.
class OwnFolder {
 public:
    OwnFolder();
    ~OwnFolder();
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;

    bool made() const { return made_; }  // else errno said why not
    const char* path() const { return path_; }
    std::string file(const char* name) const { return std::string(path_) + "/" + name; }

 private:
    char path_[sizeof "/tmp/quillsec-XXXXXX"] = "/tmp/quillsec-XXXXXX";
    bool made_;
};

// An object that a child process shares with this one; all zero before, wiped after.
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

// Calls `work` with a path for a file of its own, which does not exist yet, in a folder that only the caller
// can enter. Where the system lets it make a mount namespace, as it lets root and mostly everybody, `work`
// runs in a child process for which that folder is /tmp; what it is to leave behind goes into a Shared
// object. Elsewhere it runs here, once the lock on /tmp is free and the library's names in it are nobody
// else's. Throws Failure: Exit::kBusy where another process keeps the lock for 5 seconds, kNotPermitted where
// another user's file has one of the names, kFailed where the child dies.
void with_private_tmp(const std::function<void(const std::string& path)>& work);

}  // namespace quill::cli
