// How long does an enumeration of 10,000 accounts take, compared with reading the shadow file, which each
// step does? Writes the account files: run it in packaging/sandbox.
#include <shadow.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/measure.h"

namespace {

const int kAccounts = number_of("ACCOUNTS", 10000);

void make_accounts() {
    static const bool kMade = [] {
        if (getenv("QUILL_IN_SANDBOX") == nullptr) abort();
        std::ofstream passwd("/etc/passwd"), shadow("/etc/shadow");
        for (int i = 0; i < kAccounts; ++i) {
            const std::string name = "user" + std::to_string(i);
            passwd << name << ":x:" << 1000 + i << ":100::/bootflash/home/" << name << ":/bin/sh\n";
            shadow << name << ":!:19700:0:99999:7:::\n";
        }
        return passwd.good() && shadow.good();
    }();
    if (!kMade) abort();
}

// The floor of one step.
void read_shadow_file(benchmark::State& state) {
    make_accounts();
    for (auto _ : state) {
        setspent();
        while (const spwd* entry = getspent()) benchmark::DoNotOptimize(entry);
        endspent();
    }
}
BENCHMARK(read_shadow_file)->Unit(benchmark::kMillisecond);

void one_step(benchmark::State& state) {
    make_accounts();
    char name[128] = "";
    for (auto _ : state)
        if (security_conf_user_getnext(0, name) != 0) name[0] = '\0';
}
BENCHMARK(one_step)->Unit(benchmark::kMillisecond);

void whole_walk(benchmark::State& state) {
    make_accounts();
    for (auto _ : state) {
        char name[128] = "";
        int steps = 0;
        while (security_conf_user_getnext(0, name) == 0) ++steps;
        if (steps != kAccounts) state.SkipWithError("the enumeration is not complete");
    }
}
BENCHMARK(whole_walk)->Unit(benchmark::kSecond)->Iterations(1);

void count(benchmark::State& state) {
    make_accounts();
    for (auto _ : state) {
        uint32_t users = 0;
        cmi_security_num_users_get(0, &users);
        if (users != static_cast<uint32_t>(kAccounts)) state.SkipWithError("the count is wrong");
    }
}
BENCHMARK(count)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
