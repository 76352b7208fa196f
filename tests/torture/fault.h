// Faults that faults.cc injects into a daemon into which it is preloaded, through a file at $QUILL_FAULTS
// that test and daemon map into memory, or into the test that it is linked into.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <string>

struct Fault {
    static constexpr int kKill = 9999;  // as `error`: the call kills the process

    enum Kind { kRead = 1, kWrite = 2, kFlush = 4, kOther = 8, kAny = 15 };

    std::atomic<int> kinds;         // of the calls that fail: the sum of some
    std::atomic<int> error;         // errno of the failing system calls on the store's files; 0: none fail
    std::atomic<unsigned> after;    // so many calls succeed first
    std::atomic<unsigned> times;    // so many calls fail then
    std::atomic<unsigned> calls;    // calls since arm()
    std::atomic<unsigned> failed;   // calls of these that failed
    std::atomic<unsigned> flushes;  // successful calls of fsync() and fdatasync()
    std::atomic<bool> unflushed;    // a file was changed since the last flush
    std::atomic<bool> old_kernel;   // setsockopt(SO_PASSRIGHTS) fails, as on kernels before 6.16

    void arm(int with, unsigned first = 0, unsigned count = UINT_MAX, int of_kinds = kAny) {
        kinds = of_kinds;
        error = 0;
        calls = failed = 0;
        after = first;
        times = count;
        error = with;
    }
    void end() { error = 0; }
};

extern Fault* injected_fault;  // of a test that faults.cc is linked into

inline Fault* map_fault(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ftruncate(file, sizeof(Fault)) != 0) return nullptr;
    void* mapped = mmap(nullptr, sizeof(Fault), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return mapped == MAP_FAILED ? nullptr : static_cast<Fault*>(mapped);
}
