// Many who change the roles of one user at the same time, through the library and the real daemon.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

uint32_t change(uint32_t operation, const std::string& role) {
    common_user_member member{"root", {}};
    role.copy(member.name, 64);
    return cmi_common_user_role_config(0, operation, &member);
}

// Tries again as long as others change the list in between, as callers should.
uint32_t add(const std::string& role) {
    uint32_t status = SECURITY_ERR_CHANGED;
    for (int i = 0; status == SECURITY_ERR_CHANGED && i < 10000; ++i) status = change(SET_REQ, role);
    return status;
}

// Writers are processes, each with threads, which share a connection: the daemon cannot tell them apart.
TEST(Lists, OfManyWritersNoneIsLost) {
    constexpr int kProcesses = 8, kThreads = 2;
    const Box box;
    const Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const auto role = [](int number) { return "priv-" + std::to_string(number); };
    int start[2];
    ASSERT_EQ(0, pipe(start));
    const auto write = [&](int number) {
        char byte;
        EXPECT_EQ(0, read(start[0], &byte, 1)) << "all begin when the last is there";
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(SECURITY_OK, add(role(number)));
            EXPECT_EQ(SECURITY_OK, change(DEL_REQ, role(number)));
        }
        EXPECT_EQ(SECURITY_OK, add(role(number)));
    };
    std::vector<pid_t> writers;
    for (int i = 0; i < kProcesses; ++i)
        writers.push_back(start_child([&] {
            close(start[1]);
            std::vector<std::thread> threads;
            for (int j = 0; j < kThreads; ++j) threads.emplace_back(write, i * kThreads + j);
            for (std::thread& thread : threads) thread.join();
        }));
    for (const int end : start) close(end);
    for (const pid_t writer : writers) EXPECT_EQ(0, wait_for(writer));
    for (int i = 0; i < kProcesses * kThreads; ++i) EXPECT_EQ(SECURITY_OK, change(GET_REQ, role(i))) << i;
}

}  // namespace
