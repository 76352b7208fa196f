#include "base/stored_password.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string kSha512 =
    "$6$JRbm.5/"
    "HIwnxH7rk$QfZVWi6eVyJbpsrOY5CRSoIW05iM3tXWj.irkVr1RNbk5lNsZyEJQRFk6ZwkoEQ99WAESNMTEFSm2LUNGFxKI1";
const std::string kBcrypt = "$2b$05$PZ8xNEzk9KHteCoj8mQfkeZUyAAYtqA2H546CBa0fZ2OQudAlrqSe";
const std::string kYescrypt = "$y$j9T$Uz5/rgDUOolQD15M2wxhY.$uFGhJ4fYHiISbdBC79VJgqvEfO4hJzF7EIkeACx0gw8";
const std::string kScrypt =
    "$7$CU..../....2qUopi5ZgyXBtN1SjyEDk/$sKaSYltB1jfSxQ46qJVCYjeLe9n7HrTYb4Y9bo48987";

std::string with(std::string text, size_t at, const char* other) {
    return text.replace(at, strlen(other), other);
}

TEST(StoredPassword, IsOneThatSomePasswordCouldHave) {
    for (const auto& good : std::vector<std::string>{kSha512, kBcrypt, kYescrypt, kScrypt, "!" + kSha512,
                                                     "ubphBI5lDzSYc", "$1$vE3gfIJ7$uD8xgX7NLpg/aM7ch71v.0",
                                                     "_J9..Guz81BNdJC/H2Yk", "!", "*", "!*", "!!!!!!!!!!!"})
        EXPECT_TRUE(quill::verifiable_password(good.c_str())) << good;
    for (const auto& bad : std::vector<std::string>{
             "", "hunter2", "correcthorse1", "$6$salt$hash", "$9$salt$hash", "$", "_", "$2b$",
             kSha512.substr(0, kSha512.size() - 1), kSha512 + ".", with(kSha512, 30, ":"),
             with(kSha512, 30, "\n"), with(kBcrypt, 4, "31"), with(kYescrypt, 4, "F"),
             with(kYescrypt, 4, "z"), with(kScrypt, 3, "G"),
             std::string("$6$rounds=999999999") + kSha512.substr(2), "_zzzzGuz81BNdJC/H2Yk"})
        EXPECT_FALSE(quill::verifiable_password(bad.c_str())) << bad;
}
}  // namespace
