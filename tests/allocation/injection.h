// One call after the other in which an allocation fails: the first, the second, and so on until none is left
// to fail.
#pragma once

#include <cstdint>
#include <ostream>
#include <type_traits>

#include "tests/allocation/failing_heap.h"

// What became of a call. A case that makes several answers the worst.
enum Outcome {
    kDone,     // what it is for, all of it
    kRefused,  // its failure, with nothing written that a failure leaves alone
    kWrong
};

inline Outcome done_if(bool right) { return right ? kDone : kWrong; }

// Of a call that answers 0 for success.
inline Outcome judge(uint32_t status, bool right, bool untouched = true) {
    if (status == 0) return done_if(right);
    return untouched ? kRefused : kWrong;
}

struct Case {
    const char* function;
    Outcome (*run)();
    // The process's first call is examined; else one that goes well has filled what is kept for ever.
    bool first_call = false;

    friend void PrintTo(const Case& examined, std::ostream* to) { *to << examined.function; }
};

// Notes that something was thrown out of a function of C.
void escaped();

// The product's call, with its allocations watched.
template <class Call>
auto attempt(Call call) -> decltype(call()) {
    const Watched watched;
    try {
        return call();
    } catch (...) {
        escaped();
        if constexpr (!std::is_void_v<decltype(call())>) return {};
    }
}

// Each n-th allocation of the case fails, alone and with all that follow, in a process of its own. It must
// end in kDone or kRefused, with nothing thrown, no block and no descriptor more in use than a call that went
// well leaves, and the next call must go well. Answers how many failures were met.
uint32_t examine(const Case& examined);
