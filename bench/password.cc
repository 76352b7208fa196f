// How long does checking a strong password take, compared with cracklib alone? Run it in packaging/sandbox,
// which has the dictionary.
#include <benchmark/benchmark.h>
#include <crack.h>

#include "quillsecurity.h"

namespace {

constexpr char kStrong[] = "Tr0ub4dor+Kestrel_9q";
constexpr uint32_t kNoConnection = 0xffffffff;  // does not ask the daemon whether checks are on

void fascist_check(benchmark::State& state) {
    for (auto _ : state)
        if (FascistCheck(kStrong, "/tovo/etc/quillsecurity/cracklib_dict") != nullptr)
            state.SkipWithError("it is not strong");
}
BENCHMARK(fascist_check)->UseRealTime();

void password_check(benchmark::State& state) {
    for (auto _ : state)
        if (security_user_password_check_psec_norm(kNoConnection, kStrong, "amy") != 0)
            state.SkipWithError("it is refused");
}
BENCHMARK(password_check)->UseRealTime();

}  // namespace
