// The heap of the whole program, which fails where a test says so.
//
// The program defines malloc(3), its relatives and operator new itself, for every library in it: the C
// library, OpenSSL, cracklib and SQLite too. Allocations count while a call is watched. What the fakes around
// the library allocate in C++ is neither counted nor refused: it is no part of the product.
#pragma once

#include <cstdint>

struct Refusals {
    uint32_t first = 0;     // the first allocation to fail, counted from 1; 0 for none
    bool for_good = false;  // all that follow fail too
};

// Counts from 1 again.
void refuse(Refusals refusals);

// Returns true if an allocation was refused since.
bool refused();

// While in scope, allocations count and may fail, or do not: that is for what the test does itself.
class Watching {
 public:
    explicit Watching(bool on);
    ~Watching();
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;

 private:
    bool before_;
};

// Blocks of malloc(3), and those of operator new that were made while watched, that nobody has freed.
int64_t blocks_in_use();
