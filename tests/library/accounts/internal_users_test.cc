// The list is read once per process, so each case runs in a process of its own.
#include <unistd.h>

#include "tests/library/accounts/account_files.h"
#include "tests/support/process.h"

namespace {

using InternalUsers = AccountFiles;

constexpr char kList[] = "/tovo/etc/quillsecurity/internalusers";

TEST_F(InternalUsers, NamesAreWholeLines) {
    std::string longer;
    for (int i = 0; i < 2000; ++i) longer += "user" + std::to_string(i) + "\n";
    const struct {
        const char* what;
        std::string list;
        Texts in, out;
    } cases[] = {
        {"a list",
         "adm\nsys one\n\nlast",
         {"adm", "sys one", "last"},
         {"", "sys", "ad", "admx", "one", "adm\nsys one"}},
        {"ends of lines of another system", "adm\r\nsys\n", {"adm\r", "sys"}, {"adm"}},
        {"longer than 4096 bytes", longer, {"user0", "user1999"}, {"user2000"}},
        {"an embedded NUL ends it", std::string("adm\n\0sys\n", 9), {"adm"}, {"sys"}},
        {"empty", "", {}, {"", "adm"}},
        {"missing", "missing", {}, {"", "adm"}},
    };
    for (const auto& c : cases) {
        write_file(kList, c.list);
        if (c.list == "missing") unlink(kList);
        const auto as_listed = [&] {
            for (const auto& name : c.in) EXPECT_EQ(1u, is_internal_user(name.c_str())) << c.what << name;
            for (const auto& name : c.out) EXPECT_EQ(0u, is_internal_user(name.c_str())) << c.what << name;
            EXPECT_EQ(0u, is_internal_user(nullptr));
        };
        EXPECT_EQ(0, in_child([&] {
                      as_listed();
                      write_file(kList, "other\n");  // it is read once
                      as_listed();
                      EXPECT_EQ(0u, is_internal_user("other"));
                  }));
    }
}

}  // namespace
