// The sandbox's account files, rewritten for each test.
#pragma once

#include <string>
#include <vector>

#include "tests/fakes/library_test.h"
#include "tests/fakes/log.h"

struct Account {
    std::string name;
    bool in_passwd = true;
    bool in_shadow = true;
};

class AccountFiles : public LibraryTest {
 protected:
    void SetUp() override;
    static void write(const std::vector<Account>& accounts);
};

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);
