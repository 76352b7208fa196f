// Many who change the lists of one user at the same time, through the library and the real daemon.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

using Config = uint32_t (*)(uint32_t handle, uint32_t operation, common_user_member* record);

uint32_t change(Config config, uint32_t operation, const std::string& name) {
    common_user_member member{};
    strcpy(member.user_name, "zoe");
    name.copy(member.name, 64);
    return config(0, operation, &member);
}

// Tries again as long as others change the list in between, as callers should.
uint32_t add(Config config, const std::string& name) {
    uint32_t status = SECURITY_ERR_CHANGED;
    for (int i = 0; status == SECURITY_ERR_CHANGED && i < 10000; ++i) status = change(config, SET_REQ, name);
    return status;
}

// Writers are processes, each with threads, which share a connection: the daemon cannot tell them apart.
TEST(Lists, OfManyWritersNoneIsLost) {
    constexpr size_t kProcesses = 8, kThreads = 3;
    Box box;
    std::vector<std::string> names;
    std::string roles, locales;
    for (size_t i = 0; i < kProcesses * kThreads; ++i) {
        names.push_back("name" + std::to_string(i));
        roles += (i == 0 ? "" : ",") + names.back();
        locales += names.back() + "\n";
    }
    write_file(box / "platform.conf",
               "[system]\nroles = " + roles + "\nlocales = " + (box / "locales") + "\n", 0644);
    write_file(box / "locales", locales, 0644);
    setenv("QUILL_PLATFORM_CONF", (box / "platform.conf").c_str(), 1);
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    security_user_manage account{};
    strcpy(account.user_name, "zoe");
    uint32_t length = sizeof account;
    ASSERT_EQ(0, security_cmi(SECURITY_USER_MANAGE_REQUEST, SET_REQ, &account, nullptr, &length, 0));

    for (const Config config : {cmi_common_user_role_config, cmi_common_user_locale_config}) {
        int start[2];
        ASSERT_EQ(0, pipe(start));
        const auto write = [&](const std::string& name) {
            char byte;
            EXPECT_EQ(0, read(start[0], &byte, 1)) << "all begin when the last is there";
            EXPECT_EQ(SECURITY_OK, add(config, name));
            EXPECT_EQ(SECURITY_OK, change(config, DEL_REQ, name));
            EXPECT_EQ(SECURITY_OK, add(config, name));
        };
        std::vector<pid_t> writers;
        for (size_t i = 0; i < kProcesses; ++i)
            writers.push_back(start_child([&] {
                close(start[1]);
                std::vector<std::thread> threads;
                for (size_t j = 0; j < kThreads; ++j) threads.emplace_back(write, names[i * kThreads + j]);
                for (std::thread& thread : threads) thread.join();
            }));
        for (const int end : start) close(end);
        for (const pid_t writer : writers) EXPECT_EQ(0, wait_for(writer));
        for (const std::string& name : names) EXPECT_EQ(SECURITY_OK, change(config, GET_REQ, name)) << name;
    }
}

}  // namespace
