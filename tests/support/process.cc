#include "tests/support/process.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

// The number of results, that is failures, that the running test has recorded; a child inherits its parent's.
int recorded_results() {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    return test == nullptr ? 0 : test->result()->total_part_count();  // null in a benchmark
}

}  // namespace

pid_t start_child(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child != 0) return child;
    const int before = recorded_results();
    body();
    fflush(nullptr);
    _exit(recorded_results() == before ? 0 : 1);
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int in_child(const std::function<void()>& body) { return wait_for(start_child(body)); }

void become_nobody(gid_t group, const std::vector<gid_t>& groups, uid_t user) {
    if (setgroups(groups.size(), groups.data()) != 0 || setresgid(group, group, group) != 0 ||
        setresuid(user, user, user) != 0)
        _exit(99);
}

double seconds_now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void sleep_for(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }
