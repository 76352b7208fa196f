// Removal of the accounts of a context with the real userdel.
#include <unistd.h>

#include <filesystem>

#include "tests/library/accounts/account_files.h"

namespace {

namespace fs = std::filesystem;

class Removal : public AccountFiles {
 protected:
    void SetUp() override {
        AccountFiles::SetUp();
        for (const char* folder : {"/bootflash/home", "/tmp/home"}) {
            fs::remove_all(folder);
            fs::create_directories(folder);
        }
        write_file("/etc/group", "users:x:100:\n");
        write_file("/etc/gshadow", "users:*::\n");
        write_file("/tovo/etc/quillsecurity/internalusers", "daemon#02#\n");
    }
    static std::string home(const std::string& name) {
        fs::create_directories("/bootflash/home/" + name + "/files");
        return "/bootflash/home/" + name;
    }
};

TEST_F(Removal, TakesTheAccountsOfOneContextAndTheirHomes) {
    write({{"bob"}, {"bob#02#"}, {"daemon#02#"}, {"amy#02#"}, {"amy#03#"}});
    const std::string kept = home("bob"), gone = home("bob#02#");
    fs::create_directories("/tmp/home/bob#02#");
    world().vdc = 2;
    security_del_vdc_users();
    EXPECT_EQ((Texts{"6 deleted user bob#02#", "6 deleted user amy#02#"}), log_lines());
    for (const char* file : {"/etc/passwd", "/etc/shadow"}) {
        const std::string left = read_file(file);
        EXPECT_EQ(0u, left.find("bob:"));
        EXPECT_EQ(left.find("#02#"), left.find("daemon#02#") + 6) << "an internal user is kept, no other";
        EXPECT_EQ(left.find("#02#"), left.rfind("#02#"));
        EXPECT_NE(left.npos, left.find("amy#03#"));
    }
    EXPECT_TRUE(fs::exists(kept));
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_FALSE(fs::exists("/tmp/home/bob#02#"));
}

// For names of 23 characters or more the command would be cut and name the home directory of another account.
TEST_F(Removal, ACommandThatDoesNotFitIsNotRun) {
    const std::string fits = "abcdefghijklmnopqr#02#", does_not = "abcdefghijklmnopqrs#02#";
    write({{fits}, {does_not}});
    const std::string gone = home(fits), kept = home(does_not);
    for (size_t i = 1; i < does_not.size(); ++i) fs::create_directories("/tmp/home/" + does_not.substr(0, i));
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ("", read_file("/etc/shadow"));
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_TRUE(fs::exists(kept));
    for (size_t i = 1; i < does_not.size(); ++i)
        EXPECT_TRUE(fs::exists("/tmp/home/" + does_not.substr(0, i))) << i;
}

TEST_F(Removal, NamesThatAreNotOnePlainWordRunNothing) {
    std::vector<Account> accounts;
    Texts expected;
    for (const std::string name : {"a b", "a;touch /tmp/ran", "$(touch /tmp/ran)", "`touch /tmp/ran`", "-rf",
                                   "a/../b", "a'b", "a*", "a$b"}) {
        accounts.push_back({name + "#02#"});
        expected.push_back("3 user delete failed for: " + name + "#02# return value: -1");
    }
    write(accounts);
    const std::string precious = home("precious"), before = read_file("/etc/shadow");
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ(expected, log_lines());
    EXPECT_EQ(before, read_file("/etc/shadow"));
    EXPECT_FALSE(fs::exists("/tmp/ran"));
    EXPECT_TRUE(fs::exists(precious));
}

// Only a failure to run userdel counts, not its exit status. A name that was cut must not be that of another
// account, of any context.
TEST_F(Removal, ANameThatWasCutDoesNotMatchAnother) {
    const std::string other(31, 'l');
    write({{"ghost#02#", false, true}, {other + "#02#"}});
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ((Texts{"6 deleted user ghost#02#", "6 deleted user " + other}), log_lines());
    log_lines().clear();
    write({{other}, {other + "#02#"}});
    const std::string kept = home(other);
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ(Texts{"3 user delete failed for: " + other + " return value: -1"}, log_lines());
    EXPECT_EQ(0u, read_file("/etc/shadow").find(other + ":"));
    EXPECT_TRUE(fs::exists(kept));
}

TEST_F(Removal, FilesOfOtherUsersAreNotWritten) {
    write({{"ghost#02#", false, true}});
    write_file("/tmp/precious", "precious");
    unlink("/tmp/userdel.err");
    ASSERT_EQ(0, symlink("/tmp/precious", "/tmp/userdel.err"));
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ("precious", read_file("/tmp/precious"));
    EXPECT_NE(std::string::npos, read_file("/tmp/userdel.err").find("ghost")) << "userdel's own words";

    // Files that cannot be replaced do not keep accounts from being removed.
    fs::remove("/tmp/userdel.out");
    fs::create_directories("/tmp/userdel.out/held");
    write({{"bob#02#"}});
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ(std::string::npos, read_file("/etc/shadow").find("bob#02#"));
    fs::remove_all("/tmp/userdel.out");
}

TEST_F(Removal, StopsAt256) {
    std::vector<Account> accounts;
    for (int i = 0; i < 257; ++i)
        accounts.push_back({"a b" + std::to_string(i) + "#02#"});  // names that run nothing
    write(accounts);
    security_del_vdc_users_for_vdc(2);
    EXPECT_EQ(256u, log_lines().size());
    EXPECT_EQ("3 user delete failed for: a b255#02# return value: -1", log_lines().back());
}

}  // namespace
