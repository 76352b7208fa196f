// How long does the command runner take to return? It polls every 25 ms, so any shorter command takes 25 ms.
#include <benchmark/benchmark.h>

#include <string>

#include "quillsecurity.h"

namespace {

void command(benchmark::State& state) {
    const std::string line = "exec sleep 0.00" + std::to_string(state.range(0));
    for (auto _ : state)
        if (security_conf_system(line.c_str(), nullptr, nullptr) != 0) state.SkipWithError("it failed");
}
BENCHMARK(command)->Arg(1)->Arg(5)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
