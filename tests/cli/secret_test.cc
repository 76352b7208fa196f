// Secrets of privilege levels, and lists of roles.
#include <cstring>
#include <nlohmann/json.hpp>

#include "tests/cli/fake_daemon.h"
#include "tests/cli/quillsec.h"

namespace {

using Secrets = FakeDaemonTest;

Result with_input(const std::string& input, const std::vector<const char*>& words) {
    const StandardInput given(input);
    return quillsec(words);
}

int set(const char* level, const std::string& input) {
    return with_input(input, {"secret", "set", level, "--stdin", "--accept-weak"}).exit;
}

// What is sent is the secret, its length and zeros: a hash in its place leaves no tail of it.
TEST_F(Secrets, GoInWholeAndAlone) {
    const std::string longest(1023, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"abc\n", "abc"},          {"abc", "abc"}, {" a b \t\r\n", " a b \t\r"}, {"a\nsecond line\n", "a"},
        {longest + "\n", longest},
    };
    for (const auto& [input, secret] : cases) {
        SetUp();
        const StandardInput given(input + "next");
        EXPECT_EQ(0, quillsec({"secret", "set", "7", "--stdin", "--accept-weak"}).exit) << input;
        ASSERT_EQ(1u, fake_daemon().requests.size());
        security_priv_info want{};
        want.priv_lvl = 7;
        want.encryption_type = 100;
        const bool ended = input.find('\n') != std::string::npos;
        const std::string sent = ended ? secret : secret + "next";
        memcpy(want.secret, sent.data(), sent.size());
        want.secret_len = static_cast<int32_t>(sent.size());
        EXPECT_EQ(0, memcmp(&want, fake_daemon().requests[0].data(), sizeof want)) << input;
        // The lines behind it are somebody else's.
        EXPECT_EQ(ended ? input.substr(input.find('\n') + 1) + "next" : "", given.left());
    }
}

TEST_F(Secrets, AreRefusedBeforeAsking) {
    const struct {
        std::vector<const char*> words;
        std::string input;
        int exit;
        const char* line;
    } cases[] = {
        {{"secret", "set", "3", "--stdin"},
         "",
         6,
         "privilege level 3: the secret is empty; use 1 to 1023 bytes"},
        {{"secret", "set", "3", "--stdin"},
         "\nx",
         6,
         "privilege level 3: the secret is empty; use 1 to 1023 bytes"},
        {{"secret", "verify", "3", "--stdin"},
         std::string(1024, 'x'),
         6,
         "privilege level 3: the secret is too long; use 1 to 1023 bytes"},
        {{"secret", "set", "3", "--stdin"},
         std::string("a\0b\n", 4),
         6,
         "privilege level 3: the secret holds a NUL byte; use 1 to 1023 bytes"},
        {{"secret", "set", "0", "--stdin"}, "x", 6, "privilege level '0' is not valid; use 1 to 15"},
        {{"secret", "verify", "16", "--stdin"}, "x", 6, "privilege level '16' is not valid; use 1 to 15"},
        {{"secret", "delete", "-1"}, "", 6, "privilege level '-1' is not valid; use 1 to 15"},
        {{"secret", "show", "3x"}, "", 6, "privilege level '3x' is not valid; use 1 to 15"},
        {{"secret", "delete"},
         "",
         2,
         "secret delete: LEVEL or --all is missing; "
         "usage: quillsec secret delete LEVEL, or quillsec secret delete --all [--yes]"},
        {{"secret", "delete", "3", "--all", "--yes"},
         "",
         2,
         "secret delete: LEVEL and --all exclude each other; "
         "usage: quillsec secret delete LEVEL, or quillsec secret delete --all [--yes]"},
    };
    for (const auto& c : cases) {
        const Result result = with_input(c.input, c.words);
        EXPECT_EQ(c.exit, result.exit) << c.line;
        EXPECT_EQ("quillsec: " + std::string(c.line) + "\n", result.err);
    }
    EXPECT_TRUE(fake_daemon().requests.empty());
}

// What is kept of a secret can be guessed at: cracklib's judgement is for tests/e2e/secrets.
TEST_F(Secrets, AreLongerThanElevenCharactersUnlessForced) {
    for (const char* secret : {"elevenchars", "ell\u00e9v\u00f1ch\u00e4rs"}) {
        const Result result = with_input(secret, {"secret", "set", "3", "--stdin"});
        EXPECT_EQ(6, result.exit);
        EXPECT_NE(std::string::npos, result.err.find("too short; choose another of 12 characters or more"));
        EXPECT_TRUE(fake_daemon().requests.empty());
    }
    EXPECT_EQ(0, set("3", "elevenchars"));
}

// A list is changed by reading it and writing it back, and another may have done so in between.
TEST_F(Secrets, RolesAreChangedAgainAfterALostRace) {
    constexpr uint32_t kNotDelivered = 0xffffffff;
    const struct {
        const char* verb;
        std::vector<uint32_t> lost;
        int exit;
        std::vector<std::string> roles;
    } cases[] = {
        {"add", {SECURITY_ERR_CHANGED, kNotDelivered, SECURITY_ERR_CHANGED}, 0, {"priv-1", "priv-2"}},
        {"remove", {kNotDelivered, SECURITY_ERR_CHANGED}, 0, {}},
        {"add", std::vector<uint32_t>(1000, SECURITY_ERR_CHANGED), 8, {"priv-1"}},
    };
    for (const auto& c : cases) {
        SetUp();
        fake_daemon().roles = {"priv-1"};
        fake_daemon().lost_races = c.lost;
        const char* role = c.verb[0] == 'a' ? "priv-2" : "priv-1";
        const Result result = quillsec({"role", c.verb, "root", role});
        EXPECT_EQ(c.exit, result.exit) << result.err;
        EXPECT_EQ(c.roles, fake_daemon().roles);
        EXPECT_EQ(c.exit == 8, result.err.find("others keep changing the list") != std::string::npos);
    }
}

TEST_F(Secrets, VerifyByExitCode) {
    ASSERT_EQ(0, set("3", "right"));
    const struct {
        const char* level;
        const char* secret;
        int exit;
        const char* document;
    } cases[] = {
        {"3", "right", 0, "{\"verified\":true}\n"},
        {"3", "wrong", 1, "{\"verified\":false}\n"},
        {"3", "righ", 1, "{\"verified\":false}\n"},
        {"3", "right ", 1, "{\"verified\":false}\n"},
        {"4", "right", 3, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.exit, with_input(c.secret, {"secret", "verify", c.level, "--stdin"}).exit) << c.secret;
        const Result result = with_input(c.secret, {"secret", "verify", c.level, "--stdin", "--json"});
        EXPECT_EQ(c.exit, result.exit) << c.secret;
        if (c.document) {
            EXPECT_EQ(c.document, result.out);
        }
    }
    EXPECT_EQ("privilege level 3: this is not its secret\n",
              with_input("wrong", {"secret", "verify", "3", "--stdin"}).out);
    // A refusal is no "no".
    fake_daemon().answer = SECURITY_ERR_NOT_PERMITTED;
    EXPECT_EQ(5, with_input("right", {"secret", "verify", "3", "--stdin"}).exit);
}

TEST_F(Secrets, AreListedAndDeletedWithoutBeingShown) {
    for (const char* level : {"1", "9", "15"}) ASSERT_EQ(0, set(level, "hunter2"));
    fake_daemon().levels[9].encryption_type = SECURITY_ENCRYPTION_CLEAR;
    fake_daemon().levels[15].encryption_type = 42;
    EXPECT_EQ(
        "{\"secrets\":[\n"
        "  {\"level\":9,\"secret\":\"set\",\"encryption\":\"clear\"}\n"
        "]}\n",
        quillsec({"secret", "show", "9", "--json"}).out);
    const Result all = quillsec({"secret", "show"});
    EXPECT_EQ(16, std::count(all.out.begin(), all.out.end(), '\n'));
    EXPECT_NE(std::string::npos, all.out.find("\n1      set      hash\n2      not set\n"));
    EXPECT_NE(std::string::npos, all.out.find("\n14     not set\n15     set      42\n"));

    EXPECT_EQ(0, quillsec({"secret", "delete", "9"}).exit);
    EXPECT_EQ(3, quillsec({"secret", "delete", "9"}).exit);
    EXPECT_EQ(2u, fake_daemon().levels.size());
    EXPECT_EQ(0, quillsec({"secret", "delete", "--all", "--yes"}).exit);
    EXPECT_TRUE(fake_daemon().levels.empty());
}

}  // namespace
