// The faults that the preloaded faults.cc injects into a daemon, in a file that the test and the daemon map
// into memory. $QUILL_FAULTS is its path.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>

struct Fault {
    std::atomic<int> error;        // errno of the failing system calls on the store's files; 0: none fail
    std::atomic<unsigned> after;   // so many calls succeed first
    std::atomic<unsigned> times;   // so many calls fail then
    std::atomic<unsigned> calls;   // calls since arm()
    std::atomic<unsigned> failed;  // calls of these that failed
    std::atomic<bool> hide_peers;  // getsockopt(SO_PEERCRED) fails
    std::atomic<bool> old_kernel;  // setsockopt(SO_PASSRIGHTS) fails, as on kernels before 6.16

    void arm(int with, unsigned first, unsigned count) {
        error = 0;
        calls = failed = 0;
        after = first;
        times = count;
        error = with;
    }
    void end() { error = 0; }
};

inline Fault* map_fault(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ftruncate(file, sizeof(Fault)) != 0) return nullptr;
    void* mapped = mmap(nullptr, sizeof(Fault), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return mapped == MAP_FAILED ? nullptr : static_cast<Fault*>(mapped);
}
