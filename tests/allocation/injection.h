// Calls in which an allocation fails: the first, the second, and so on until none is left to fail.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>

#include "tests/allocation/failing_heap.h"

// What a call did. A case of several calls returns the worst.
enum Outcome {
    kDone,     // it succeeded
    kRefused,  // it reported a failure and wrote nothing that a failure must not write
    kWrong
};

inline Outcome done_if(bool right) { return right ? kDone : kWrong; }

// For a call that returns 0 for success.
inline Outcome judge(uint32_t status, bool right, bool untouched = true) {
    if (status == 0) return done_if(right);
    return untouched ? kRefused : kWrong;
}

struct Case {
    const char* function;
    Outcome (*run)();
    // Examines the process's first call; otherwise a call that succeeds comes first and fills what is kept.
    bool first_call = false;

    friend void PrintTo(const Case& examined, std::ostream* to) { *to << examined.function; }
};

// Records that an exception left a C function.
void escaped();

// The product's call, with its allocations watched.
template <class Call>
auto attempt(Call call) -> decltype(call()) {
    const Watching product(true);
    try {
        return call();
    } catch (...) {
        escaped();
        if constexpr (!std::is_void_v<decltype(call())>) return {};
    }
}

// Runs the case once for each of its allocations, which fails, alone and with all that follow, in a new
// process. The call must end in kDone or kRefused, without an exception, with no more blocks and descriptors
// in use than a call that succeeds leaves, and the next call must succeed. Returns how many failures were
// met.
uint32_t examine(const Case& examined);

class AllocationTest : public testing::TestWithParam<Case> {
 protected:
    void SetUp() override {
        if (getenv("QUILL_IN_SANDBOX") == nullptr) GTEST_SKIP() << "run in packaging/sandbox";
    }
    static void TearDownTestSuite() { printf("%u failures were met\n", failures); }

    static inline uint32_t failures = 0;
};

inline std::string name_of(const testing::TestParamInfo<Case>& test) {
    return test.param.function + ("_" + std::to_string(test.index));
}
