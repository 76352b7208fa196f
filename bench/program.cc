// What do a whole run of the client and the daemon's memory amount to? Run it in packaging/sandbox.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "bench/measure.h"
#include "tests/support/daemon.h"

namespace {

struct Service {
    Box box;
    Daemon daemon;
    Service() { require(daemon.ready(), daemon.log().c_str()); }
    // Resident, in KiB.
    double memory() const {
        std::ifstream file("/proc/" + std::to_string(daemon.pid()) + "/status");
        for (std::string word; file >> word;)
            if (word == "VmRSS:") break;
        double kilobytes = 0;
        file >> kilobytes;
        return kilobytes;
    }
};

void run(benchmark::State& state, std::vector<const char*> words) {
    const Service service;
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    {
        Latencies latencies(state);
        for (auto _ : state)
            latencies.time([&] {
                pid_t child;
                int status = 0;
                require(posix_spawnp(&child, words[0], &actions, nullptr,
                                     const_cast<char* const*>(words.data()), environ) == 0 &&
                            waitpid(child, &status, 0) == child && status == 0,
                        words[0]);
            });
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK_CAPTURE(run, true, {"/bin/true"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(run, service_show, {"quillsec", "service", "show"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Nine reads and walks for each change, of a daemon of its own, once it has all users.
void requests(benchmark::State& state) {
    const auto users = static_cast<int>(state.range(0));
    Service service;
    double idle = service.memory();
    int made = 0;
    for (auto _ : state) {
        security_user record = user(made % users);
        const uint32_t operation = made % 10 == 0 || made < users ? SET_REQ
                                   : made % 2 == 0                ? GETNEXT_REQ
                                                                  : GET_REQ;
        if (operation == SET_REQ) snprintf(record.password, sizeof record.password, "%d", made);
        const uint32_t status = cmi_security_user_config(1, operation, &record);
        require(status == SECURITY_OK || status == SECURITY_ERR_END_OF_TABLE, "a request was refused");
        if (++made == users) idle = service.memory();
    }
    state.counters["idle_KiB"] = idle;
    state.counters["late_KiB"] = service.memory();
}
BENCHMARK(requests)->Arg(100)->Arg(10000)->Iterations(number_of("REQUESTS", 1000000))->UseRealTime();

}  // namespace
