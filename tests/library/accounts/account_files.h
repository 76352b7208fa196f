// The sandbox's account files, rewritten for each test.
#pragma once

#include <string>
#include <vector>

#include "tests/fakes/library_test.h"
#include "tests/fakes/log.h"
#include "tests/support/box.h"

struct Account {
    std::string name;
    bool in_passwd = true;
    bool in_shadow = true;
};

class AccountFiles : public LibraryTest {
 protected:
    void SetUp() override {
        if (getenv("QUILL_IN_SANDBOX") == nullptr)
            GTEST_SKIP() << "run in packaging/sandbox: this rewrites /etc";
        LibraryTest::SetUp();
        log_lines().clear();
        write({});
    }

    static void write(const std::vector<Account>& accounts) {
        std::string passwd, shadow;
        int uid = 2000;
        for (const auto& account : accounts) {
            const std::string id = account.name == "root" ? "0" : std::to_string(uid++);
            if (account.in_passwd) passwd += account.name + ":x:" + id + ":100::/nowhere:/bin/false\n";
            if (account.in_shadow) shadow += account.name + ":$1$salt$digest:19700:0:99999:7:::\n";
        }
        write_file("/etc/passwd", passwd);
        write_file("/etc/shadow", shadow);
    }
};
