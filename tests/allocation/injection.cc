#include "tests/allocation/injection.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/support/process.h"

namespace {

constexpr int kMostDescriptors = 128;
constexpr unsigned kLongest = 60;  // seconds

bool thrown = false;

struct Use {
    int64_t blocks = blocks_in_use();
    int descriptors = 0;

    Use() {
        for (int i = 0; i < kMostDescriptors; ++i) descriptors += fcntl(i, F_GETFD) != -1 ? 1 : 0;
    }
    Use operator-(const Use& before) const {
        Use grown = *this;
        grown.blocks -= before.blocks;
        grown.descriptors -= before.descriptors;
        return grown;
    }
    bool operator<=(const Use& other) const {
        return blocks <= other.blocks && descriptors <= other.descriptors;
    }
};

// Written by child processes.
struct Shared {
    bool met;
    Use after[3];  // in use after calls that succeeded
};

Shared& shared = *static_cast<Shared*>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

Use prepare(const Case& examined) {
    alarm(kLongest);
    if (!examined.first_call) {
        EXPECT_EQ(kDone, examined.run());
    }
    return {};
}

void measure_calls_that_succeed(const Case& examined) {
    const Use before = prepare(examined);
    for (Use& after : shared.after) {
        after = Use() - before;
        EXPECT_EQ(kDone, examined.run());
    }
    EXPECT_FALSE(thrown);
}

void fail_once(const Case& examined, Refusals refusals) {
    const Use before = prepare(examined);
    refuse(refusals);
    const Outcome outcome = examined.run();
    shared.met = refused();
    refuse({});
    EXPECT_NE(kWrong, outcome);
    EXPECT_FALSE(thrown) << "an exception left it";
    EXPECT_TRUE(shared.met || outcome == kDone) << "with nothing refused";
    EXPECT_EQ(kDone, examined.run()) << "the next call";
    const Use& allowed = shared.after[2];
    ERR_clear_error();  // OpenSSL keeps the last few
    if (Use() - before <= allowed) return;

    // What is kept is kept once; what is lost is lost again.
    const Use once;
    refuse(refusals);
    static_cast<void>(examined.run());
    refuse({});
    EXPECT_EQ(kDone, examined.run());
    ERR_clear_error();
    const Use left = Use() - once;
    EXPECT_LE(left.blocks, allowed.blocks) << "blocks are left over";
    EXPECT_LE(left.descriptors, allowed.descriptors) << "descriptors are left open";
}

}  // namespace

void escaped() { thrown = true; }

uint32_t examine(const Case& examined) {
    EXPECT_EQ(0, in_child([&] { measure_calls_that_succeed(examined); })) << examined.function;
    uint32_t failures = 0;
    for (const bool for_good : {false, true}) {
        for (uint32_t n = 1;; ++n) {
            shared.met = false;
            const int end = in_child([&] { fail_once(examined, {n, for_good}); });
            EXPECT_EQ(0, end) << examined.function << ": allocation " << n
                              << (for_good ? " and all that follow" : "");
            if (!shared.met) break;
            ++failures;
        }
    }
    return failures;
}
