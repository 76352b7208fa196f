#include "tests/library/accounts/account_files.h"

#include <fstream>
#include <iterator>

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void AccountFiles::SetUp() {
    if (getenv("QUILL_IN_SANDBOX") == nullptr) GTEST_SKIP() << "run in packaging/sandbox: this rewrites /etc";
    LibraryTest::SetUp();
    log_lines().clear();
    write({});
}

void AccountFiles::write(const std::vector<Account>& accounts) {
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
