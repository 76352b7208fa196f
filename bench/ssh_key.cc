// How long do checking a key file and converting a key take, compared with ssh-keygen alone, and for how much
// of that time does the command runner sleep between polls of its child? Writes into /tmp: run it in
// packaging/sandbox.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_asleep;

constexpr char kFolder[] = "/tmp/bench/";

std::string path_of(const char* name) { return std::string(kFolder) + name; }

void make_keys() {
    static const int kMade = system(
        "mkdir -p /tmp/bench && cd /tmp/bench && ssh-keygen -qt rsa -b 2048 -N '' -f line >/dev/null;"
        "cd /tmp/bench && ssh-keygen -ef line.pub >ssh2 && openssl req -x509 -nodes -subj /CN=a -newkey "
        "rsa:2048"
        " -keyout key -out certificate 2>/dev/null");
    if (kMade != 0) abort();
}

// Reports the share of the time that was spent in select().
void report(benchmark::State& state, Clock::time_point start) {
    const double whole = std::chrono::duration<double>(Clock::now() - start).count();
    state.counters["asleep"] = seconds_asleep / whole;
}

void keygen_alone(benchmark::State& state) {
    make_keys();
    std::string path = path_of("line.pub");
    char name[] = "ssh-keygen", list[] = "-l", file[] = "-f";
    char* const arguments[] = {name, list, file, path.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t child;
        if (posix_spawnp(&child, name, &actions, nullptr, arguments, environ) != 0) abort();
        waitpid(child, nullptr, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(keygen_alone)->UseRealTime();

void check(benchmark::State& state, const char* name, int want) {
    make_keys();
    const std::string path = path_of(name);
    seconds_asleep = 0;
    const int first = dup(STDOUT_FILENO);
    const auto start = Clock::now();
    for (auto _ : state) {
        uint8_t format = 99;
        if (sshkey_check_type(path.c_str(), &format) != SECURITY_OK || format != want) abort();
        closefrom(first);  // a certificate's file stays open
    }
    report(state, start);
}
BENCHMARK_CAPTURE(check, openssh, "line.pub", SSHKEY_FMT_OPENSSH)->UseRealTime();
BENCHMARK_CAPTURE(check, ssh2, "ssh2", SSHKEY_FMT_SSH2)->UseRealTime();
BENCHMARK_CAPTURE(check, private_key, "line", SSHKEY_FMT_NOT_PUBLIC)->UseRealTime();
BENCHMARK_CAPTURE(check, certificate, "certificate", SSHKEY_FMT_X509_PEM)->UseRealTime()->Iterations(1000);

void convert(benchmark::State& state, const char* name, uint8_t format) {
    make_keys();
    ssh_key_new_rec source{};
    if (sshkey_new_copy_file_content(path_of(name).c_str(), "amy", format, &source) != SECURITY_OK) abort();
    seconds_asleep = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        ssh_key_rec target{};
        if (convert_other_ssh_key_to_openssh(&source, &target) != SECURITY_OK || *target.key_text != 's')
            abort();
    }
    report(state, start);
}
BENCHMARK_CAPTURE(convert, ssh2, "ssh2", SSHKEY_FMT_SSH2)->UseRealTime();
BENCHMARK_CAPTURE(convert, certificate, "certificate", SSHKEY_FMT_X509_PEM)->UseRealTime();

}  // namespace

// Replaces the C library's function, to measure the time spent in it.
extern "C" __attribute__((visibility("default"))) int select(int count, fd_set* in, fd_set* out,
                                                             fd_set* except, timeval* time) {
    const auto start = Clock::now();
    const timespec bound{time->tv_sec, time->tv_usec * 1000};
    const int result = pselect(count, in, out, except, &bound, nullptr);
    seconds_asleep += std::chrono::duration<double>(Clock::now() - start).count();
    return result;
}
