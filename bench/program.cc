// How long does a run of the client take, and how much memory does the daemon use? Run it in
// packaging/sandbox.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/measure.h"
#include "tests/support/daemon.h"

namespace {

struct Service {
    Box box;
    Daemon daemon;
    Service() { require(daemon.ready(), daemon.log().c_str()); }
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

// Requests to a daemon of its own: first one change for each user, then nine reads and enumeration steps for
// each change.
void requests(benchmark::State& state) {
    const auto users = static_cast<int>(state.range(0));
    Service service;
    double idle = service.daemon.kilobytes();
    int made = 0;
    for (auto _ : state) {
        security_user record = user(made % users);
        const uint32_t operation = made % 10 == 0 || made < users ? SET_REQ
                                   : made % 2 == 0                ? GETNEXT_REQ
                                                                  : GET_REQ;
        if (operation == SET_REQ) snprintf(record.password, sizeof record.password, "%d", made);
        const uint32_t status = cmi_security_user_config(1, operation, &record);
        require(status == SECURITY_OK || status == SECURITY_ERR_END_OF_TABLE, "a request was refused");
        if (++made == users) idle = service.daemon.kilobytes();
    }
    state.counters["idle_KiB"] = idle;
    state.counters["late_KiB"] = service.daemon.kilobytes();
}
BENCHMARK(requests)->Arg(100)->Arg(10000)->Iterations(number_of("REQUESTS", 1000000))->UseRealTime();

}  // namespace
