// The list is read once per process, so each case runs in a process of its own.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "tests/library/accounts/account_files.h"

namespace {

using InternalUsers = AccountFiles;

constexpr char kList[] = "/tovo/etc/quillsecurity/internalusers";

// Runs `ask` in a new process and returns its result, one bit for each name.
int in_new_process(const std::function<int()>& ask) {
    const pid_t child = fork();
    if (child == 0) _exit(ask());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(InternalUsers, NamesAreWholeLines) {
    std::string longer;
    for (int i = 0; i < 2000; ++i) longer += "user" + std::to_string(i) + "\n";
    const struct {
        const char* what;
        std::string list;
        std::vector<std::string> in, out;
    } cases[] = {
        {"a list",
         "adm\nsys one\n\nlast",
         {"adm", "sys one", "last"},
         {"", "sys", "ad", "admx", "one", "adm\nsys one"}},
        {"ends of lines of another system", "adm\r\nsys\n", {"adm\r", "sys"}, {"adm"}},
        {"longer than 4096 bytes", longer, {"user0", "user1999"}, {"user2000"}},
        {"an embedded NUL ends it", std::string("adm\n\0sys\n", 9), {"adm"}, {"sys"}},
        {"empty", "", {}, {"", "adm"}},
    };
    for (const auto& c : cases) {
        write_file(kList, c.list);
        const int wrong = in_new_process([&] {
            for (const auto& name : c.in)
                if (is_internal_user(name.c_str()) != 1) return 1;
            for (const auto& name : c.out)
                if (is_internal_user(name.c_str()) != 0) return 2;
            return is_internal_user(nullptr) == 0 ? 0 : 3;
        });
        EXPECT_EQ(0, wrong) << c.what;
    }
}

TEST_F(InternalUsers, AreReadOnce) {
    write_file(kList, "adm\n");
    EXPECT_EQ(0, in_new_process([] {
                  if (is_internal_user("adm") != 1) return 1;
                  write_file(kList, "other\n");
                  return is_internal_user("adm") == 1 && is_internal_user("other") == 0 ? 0 : 2;
              }));
    unlink(kList);
    EXPECT_EQ(0, in_new_process([] {
                  if (is_internal_user("") != 0) return 1;
                  write_file(kList, "adm\n");
                  return is_internal_user("adm") == 0 ? 0 : 2;
              }));
}

}  // namespace
