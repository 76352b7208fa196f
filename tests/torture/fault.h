// What the preloaded faults.cc does to a daemon, in a file that a test and the daemon both map. The daemon
// finds its name in QUILL_FAULTS.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>

struct Fault {
    std::atomic<int> error;          // of system calls on the store's files; 0: they go well
    std::atomic<unsigned> after;     // how many go well before
    std::atomic<unsigned> times;     // how many fail then
    std::atomic<unsigned> calls;     // seen since, whatever became of them
    std::atomic<unsigned> failed;    // of these
    std::atomic<bool> nobody_known;  // the kernel will not say who a client is

    void arm(int with, unsigned from, unsigned how_often) {
        error = 0;
        calls = failed = 0;
        after = from;
        times = how_often;
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
