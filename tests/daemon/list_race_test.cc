// Many who change the lists of one user at the same time, through the library and the real daemon.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

constexpr int kWriters = 16;

struct Kind {
    const char* what;
    uint32_t (*config)(uint32_t handle, uint32_t operation, common_user_member* record);
};

uint32_t change(const Kind& kind, uint32_t operation, const std::string& name, const char* user = "zoe") {
    common_user_member member{};
    strcpy(member.user_name, user);
    name.copy(member.name, 64);
    return kind.config(0, operation, &member);
}

// Adds and removes until it is done, as callers should.
uint32_t retry(const Kind& kind, uint32_t operation, const std::string& name) {
    uint32_t status = SECURITY_ERR_CHANGED;
    for (int i = 0; status == SECURITY_ERR_CHANGED && i < 10000; ++i) status = change(kind, operation, name);
    return status;
}

TEST(Lists, OfManyWritersNoneIsLost) {
    Box box;
    std::string names;
    for (int i = 0; i < kWriters; ++i) names += "name" + std::to_string(i) + " ";
    std::replace(names.begin(), names.end() - 1, ' ', ',');
    write_file(box / "platform.conf",
               "[system]\nroles = " + names + "\nlocales = " + (box / "locales") + "\n", 0644);
    std::replace(names.begin(), names.end(), ',', '\n');
    write_file(box / "locales", names, 0644);
    setenv("QUILL_PLATFORM_CONF", (box / "platform.conf").c_str(), 1);
    Daemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    for (const char* user : {"zoe", "tom"}) {
        security_user_manage account{};
        strcpy(account.user_name, user);
        uint32_t length = sizeof account;
        ASSERT_EQ(0, security_cmi(SECURITY_USER_MANAGE_REQUEST, SET_REQ, &account, nullptr, &length, 0));
    }

    for (const Kind& kind :
         {Kind{"roles", cmi_common_user_role_config}, {"locales", cmi_common_user_locale_config}}) {
        int start[2];
        ASSERT_EQ(0, pipe(start));
        std::vector<pid_t> writers;
        for (int i = 0; i < kWriters; ++i)
            writers.push_back(start_child([&] {
                close(start[1]);
                char byte;
                EXPECT_EQ(0, read(start[0], &byte, 1)) << "all begin when the last is there";
                const std::string name = "name" + std::to_string(i);
                EXPECT_EQ(SECURITY_OK, retry(kind, SET_REQ, name));
                EXPECT_EQ(SECURITY_OK, change(kind, DEL_REQ, name));
                EXPECT_EQ(SECURITY_OK, retry(kind, SET_REQ, name));
            }));
        close(start[0]);
        close(start[1]);
        for (const pid_t writer : writers) EXPECT_EQ(0, wait_for(writer)) << kind.what;
        for (int i = 0; i < kWriters; ++i)
            EXPECT_EQ(SECURITY_OK, change(kind, GET_REQ, "name" + std::to_string(i)))
                << kind.what << " " << i;
    }
    // Threads share a connection, and the daemon cannot tell them apart.
    std::vector<std::thread> threads;
    for (int i = 0; i < kWriters; ++i)
        threads.emplace_back([i] {
            const Kind roles{"roles", cmi_common_user_role_config};
            EXPECT_EQ(SECURITY_OK, change(roles, SET_REQ, "name" + std::to_string(i), "tom"));
        });
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < kWriters; ++i)
        EXPECT_EQ(SECURITY_OK,
                  change({"roles", cmi_common_user_role_config}, GET_REQ, "name" + std::to_string(i), "tom"))
            << i;
    EXPECT_NE(std::string::npos, daemon.log().find("account 'zoe': created, by uid 0 pid ")) << daemon.log();
    EXPECT_NE(std::string::npos, daemon.log().find("roles of 'zoe': +name")) << daemon.log();
}

}  // namespace
