// The rules, then cracklib with its real dictionary.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tests/fakes/library_test.h"

namespace {

using PasswordStrength = LibraryTest;

constexpr char kNoName[] = "User name is not supplied, I can't verify the password strength.";
constexpr char kShort[] = "Password should be at least 8 characters.";
constexpr char kForbidden[] = "Special characters '$' and '=' are not supported.";
constexpr char kRepeated[] =
    "Password shouldn't contain characters, repeated three or more times consecutively.";
constexpr char kClasses[] =
    "Password should contain characters from at least three of the following classes: lower case letters, "
    "upper case letters, digits and special characters.";
constexpr char kSame[] = "Password should not be same as username or reverse of it.";

std::string told(const char* message) { return message == nullptr ? "" : message; }

TEST_F(PasswordStrength, TheFirstBrokenRuleIsReported) {
    std::string long_one;
    while (long_one.size() < 250) long_one += "aB1.cD2!";
    long_one.resize(250);
    const struct {
        std::string name, password;
        const char* want;
    } cases[] = {
        {"", "", kNoName},
        {"alice", "", "Password supplied is not valid."},
        {"alice", "Abcdef1", kShort},
        {"alice", "Abcdefg1", ""},
        {"alice", "$bcdef1", kShort},
        {"alice", "aaBcdef12", ""},
        {"alice", "aaaBcdef1", kRepeated},
        {"alice", "Bcdef1aaa", kRepeated},
        {"alice", "aabaabB1", ""},
        {"alice", "Pass$word1", kForbidden},
        {"alice", "Pass=word1", kForbidden},
        {"alice", "aaa$Bcd1", kRepeated},  // the third a comes before the $
        {"alice", "aa$aBcd1", kForbidden},
        {"alice", "abcdefgh1", kClasses},
        {"alice", "abcd efg1", kClasses},  // a blank is in no class
        {"alice", "abcd\tefg1", kClasses},
        {"alice", "abcdefg1\x01", ""},  // a control character is special
        {"alice", "abcdefg1\xe9", ""},  // so is a byte that is not a letter in this locale
        {"alice", "ABCDEFG1!", ""},
        {"Abcdefg1", "Abcdefg1", kSame},
        {"1gfedcbA", "Abcdefg1", kSame},
        {"abcdefg1", "Abcdefg1", ""},              // the comparison is case-sensitive
        {"alice", long_one + "aB1.c", ""},         // 255 characters
        {"alice", long_one + "aB1.caaa", ""},      // the third a in a row is not within the first 255
        {"alice", long_one + "1.aaa", kRepeated},  // here it is
        {"alice", long_one + "aB1.c$", ""},
        {"alice", long_one + "aB1.$", kForbidden},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.want, told(security_check_strength_main(c.name.c_str(), c.password.c_str())))
            << c.password;
    }
    EXPECT_EQ(security_check_strength_main("alice", "a"), security_check_strength_main("", ""))
        << "one buffer";
    EXPECT_EQ(kNoName, told(security_check_strength_main(nullptr, nullptr)));
}

std::string judged(uint32_t connection, const char* password) {
    const uintptr_t message = security_user_password_check_psec_norm(connection, password, "alice");
    return message == 0 ? "" : reinterpret_cast<const char*>(message);
}

TEST_F(PasswordStrength, TheSwitchDecidesWhetherToCheck) {
    const struct {
        const char* what;
        Reply reply;
        uint32_t connection;
        const char* password;
        std::string want;
        size_t requests;
    } cases[] = {
        {"on", {.record = be32(13) + be32(1)}, 4, "short", kShort, 1},
        {"off", {.record = be32(13) + be32(0)}, 4, "", "", 1},
        {"unreadable", {.status = -1, .error = ENOENT}, 4, "short", kShort, 1},
        {"never set", {.status = 0x404a0007}, 4, "short", kShort, 1},
        {"not asked", {.record = be32(13) + be32(0)}, 0xffffffff, "short", kShort, 0},
    };
    for (const auto& c : cases) {
        world().requests.clear();
        world().reply = c.reply;
        EXPECT_EQ(c.want, judged(c.connection, c.password)) << c.what;
        ASSERT_EQ(c.requests, world().requests.size()) << c.what;
        if (c.requests == 0) continue;
        EXPECT_EQ(161, world().requests[0].type);
        EXPECT_EQ(be32(13) + be32(1), world().requests[0].record);
        EXPECT_EQ(c.connection, world().requests[0].connection);
    }
}

TEST_F(PasswordStrength, CracklibChecksWhatPassesTheRules) {
    if (getenv("QUILL_IN_SANDBOX") == nullptr)
        GTEST_SKIP() << "run in packaging/sandbox: this uses and damages the dictionary";
    constexpr uint32_t kNone = 0xffffffff;
    EXPECT_EQ("", judged(kNone, "Xq7!vR2#mzL"));
    EXPECT_EQ(Texts{"In security_user_password_check_psec_norm:"}, world().traces);

    const std::string objection = judged(kNone, "Password1");
    EXPECT_NE("", objection);
    EXPECT_EQ(objection, cmi_common_user_err_str);
    EXPECT_EQ("Implementing cracklib checks: FascistCheck func called", world().traces.back());

    EXPECT_EQ(kShort, judged(kNone, "short"));
    EXPECT_STREQ(kShort, cmi_common_user_err_str);
    EXPECT_EQ("Implementing our own checks: security_check_strength_main() func called",
              world().traces.back());

    // With a damaged, empty or missing dictionary every password is rejected, and the process does not end.
    for (const int size : {3, 0, -1}) {
        for (const char* part : {".hwm", ".pwd", ".pwi"}) {
            const std::string path = std::string("/tovo/etc/quillsecurity/cracklib_dict") + part;
            if (size < 0)
                std::filesystem::remove(path);
            else
                std::filesystem::resize_file(path, static_cast<uintmax_t>(size));
        }
        EXPECT_NE("", judged(kNone, "Xq7!vR2#mzL")) << size;
    }
}

TEST_F(PasswordStrength, TextHelpers) {
    const struct {
        const char *given, *reversed, *sorted, *lower;
    } cases[] = {
        {"", "", "", ""},
        {"a", "a", "a", "a"},
        {"bA\377!", "!\377Ab", "\377!Ab", "ba\377!"},
        {"ABC", "CBA", "ABC", "Abc"},
        {"dcba", "abcd", "abcd", "dcba"},
    };
    for (const auto& c : cases) {
        char text[16];
        EXPECT_STREQ(c.reversed, reverse_fun(strcpy(text, c.given)));
        EXPECT_STREQ(c.sorted, bin_sort_fun(strcpy(text, c.given)));
        EXPECT_STREQ(c.lower, change_to_lower(strcpy(text, c.given)));
    }
    for (const auto helper : {reverse_fun, bin_sort_fun, change_to_lower})
        EXPECT_EQ(nullptr, helper(nullptr));
}

}  // namespace
