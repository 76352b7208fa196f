#include <cstring>
#include <nlohmann/json.hpp>

#include "tests/cli/fake_daemon.h"
#include "tests/cli/quillsec.h"

namespace {

class Records : public FakeDaemonTest {
 protected:
    static void add(const char* name, const char* password, uint32_t encryption = 7, uint32_t type = 0) {
        security_user user{};
        strcpy(user.user_name, name);
        strcpy(user.password, password);
        user.user_type = type;
        user.encryption_type = encryption;
        fake_daemon().users[{type == 1, name}] = user;
    }
};

Result set(const std::string& input, std::vector<const char*> words) {
    const StandardInput given(input);
    words.insert(words.begin(), {"record", "set"});
    words.push_back("--stdin");
    return quillsec(words);
}

TEST_F(Records, AreSetAsTheWordsSay) {
    const std::string longest(127, 'x');
    const struct {
        std::vector<const char*> words;
        std::string input;
        uint32_t type;
        uint32_t encryption;
    } cases[] = {
        {{"amy"}, "abc", 0, 0},
        {{"amy", "--type", "1"}, longest, 1, 0},
        {{"--type=4294967295", "amy", "--encoding", "cipher"}, "kqn", 4294967295, 7},
        {{"amy", "--encoding", "Hash"}, "$1$1f$134cc78c882a1c63", 0, 1},
    };
    for (const auto& c : cases) {
        SetUp();
        EXPECT_EQ(0, set(c.input, c.words).exit) << c.input;
        security_user want{};
        strcpy(want.user_name, "amy");
        want.user_type = c.type;
        want.encryption_type = c.encryption;
        strcpy(want.password, c.input.c_str());
        ASSERT_EQ(1u, fake_daemon().requests.size());
        EXPECT_EQ(0, memcmp(&want, fake_daemon().requests[0].data(), sizeof want)) << c.input;
    }
}

TEST_F(Records, AreRefusedBeforeAsking) {
    const std::string long_name(128, 'n');
    const struct {
        std::vector<const char*> words;
        std::string input;
        int exit;
        std::string line;
    } cases[] = {
        {{"amy"},
         std::string(128, 'x'),
         6,
         "user record 'amy': the password is too long; use 1 to 127 bytes"},
        {{"amy"}, "", 6, "user record 'amy': the password is empty; use 1 to 127 bytes"},
        {{""}, "x", 6, "user record '': the name is not valid; use 1 to 127 bytes"},
        {{long_name.c_str()},
         "x",
         6,
         "user record '" + long_name + "': the name is not valid; use 1 to 127 bytes"},
        {{"amy", "--type", "4294967296"},
         "x",
         6,
         "option '--type': value '4294967296' is not valid; use a number"},
        {{"amy", "--encoding", "clear"},
         "x",
         6,
         "option '--encoding': value 'clear' is not valid; use cipher or hash"},
        {{"amy", "--encoding"},
         "x",
         6,
         "option '--encoding': value '--stdin' is not valid; use cipher or hash"},
    };
    for (const auto& c : cases) {
        const Result result = set(c.input, c.words);
        EXPECT_EQ("quillsec: " + c.line + "\n", result.err);
        EXPECT_EQ(c.exit, result.exit) << c.line;
    }
    EXPECT_TRUE(fake_daemon().requests.empty());
}

TEST_F(Records, AreListedByTable) {
    add("bob", "b");
    add("amy", "a", 7, 5);
    add("cy", "c", 7, 1);
    EXPECT_EQ(
        "NAME  TYPE  ENCODING\n"
        "amy   5     cipher\n"
        "bob   0     cipher\n",
        quillsec({"record", "show"}).out);
    EXPECT_EQ(
        "{\"records\":[\n"
        "  {\"name\":\"cy\",\"type\":1,\"encoding\":\"cipher\",\"password\":\"c\"}\n"
        "]}\n",
        quillsec({"record", "show", "--type", "1", "--show-password", "--json"}).out);
    EXPECT_EQ("{\"records\":[]}\n",
              (fake_daemon().users.clear(), quillsec({"record", "show", "--json"}).out));
}

// A stored hash is listed like any other record, where the daemon hands it out; its text only when asked for.
TEST_F(Records, HashesAreListed) {
    fake_daemon().hands_out_hashes = true;
    add("amy", "a");
    add("bob", "$1$1f$134cc78c882a1c63", 1);
    add("cy", "c");
    EXPECT_EQ(
        "NAME  TYPE  ENCODING\n"
        "amy   0     cipher\n"
        "bob   0     hash\n"
        "cy    0     cipher\n",
        quillsec({"record", "show"}).out);
    EXPECT_EQ(
        "NAME  TYPE  ENCODING  PASSWORD\n"
        "bob   0     hash      $1$1f$134cc78c882a1c63\n",
        quillsec({"record", "show", "bob", "--show-password"}).out);
}

// Where it does not, the list ends there, and says so.
TEST_F(Records, AListGoesOnBehindAHash) {
    add("amy", "a");
    add("bob", "$1$1f$134cc78c882a1c63", 1);
    add("cy", "c");
    const Result result = quillsec({"record", "show", "--json", "--show-password"});
    EXPECT_EQ(0, result.exit);
    EXPECT_EQ(
        "{\"records\":[\n"
        "  {\"name\":\"amy\",\"type\":0,\"encoding\":\"cipher\",\"password\":\"a\"},\n"
        "  {\"name\":\"bob\",\"type\":0,\"encoding\":null,\"password\":null},\n"
        "  {\"name\":\"cy\",\"type\":0,\"encoding\":\"cipher\",\"password\":\"c\"}\n]}\n",
        result.out);
    const Result one = quillsec({"record", "show", "bob", "--json"});
    EXPECT_EQ(0, one.exit);
    EXPECT_EQ("{\"records\":[\n  {\"name\":\"bob\",\"type\":0,\"encoding\":null}\n]}\n", one.out);
}

// A reply is read within its fields, terminator or not.
TEST_F(Records, RepliesAreReadWithinTheirFields) {
    add("amy", "a");
    auto& user = fake_daemon().users.begin()->second;
    memset(user.user_name, 'n', sizeof user.user_name);
    memset(user.password, 'p', sizeof user.password);
    const Result result = quillsec({"record", "show", "amy", "--show-password", "--json"});
    const auto record = nlohmann::json::parse(result.out).at("records").at(0);
    EXPECT_EQ(std::string(128, 'n'), record.at("name"));
    EXPECT_EQ(std::string(128, 'p'), record.at("password"));
}

TEST_F(Records, AreDeletedByTable) {
    add("amy", "a");
    add("amy", "a", 7, 1);
    EXPECT_EQ("{\"deleted\":\"amy\"}\n", quillsec({"record", "delete", "amy", "--type", "1", "--json"}).out);
    EXPECT_EQ(3, quillsec({"record", "delete", "amy", "--type", "1"}).exit);
    EXPECT_EQ(1u, fake_daemon().users.size());
    EXPECT_EQ("quillsec: user record 'bob': the record does not exist; check how it is spelled\n",
              quillsec({"record", "delete", "bob"}).err);
}

}  // namespace
