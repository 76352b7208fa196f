#include <cerrno>
#include <cstring>

#include "tests/library/accounts/account_files.h"

namespace {

using Enumeration = AccountFiles;
using Names = Texts;

Names walk() {
    Names names;
    char name[128] = "";
    while (security_conf_user_getnext(0, name) == 0 && names.size() < 10000) names.push_back(name);
    return names;
}

TEST_F(Enumeration, NameOrderIsLengthFirst) {
    const std::tuple<const char*, const char*, int> cases[] = {
        {"b", "aa", -1}, {"aa", "b", 1}, {"a", "b", -1},    {"b", "a", 1},
        {"a", "a", 0},   {"", "a", -1},  {"z", "aaaa", -1}, {"a\xff", "ab", 1}};
    for (const auto& [a, b, want] : cases) {
        const int order = security_conf_compare_username(a, b);
        EXPECT_EQ(want, (order > 0) - (order < 0)) << a << " " << b;
    }
}

TEST_F(Enumeration, UsersOfAllContextsInNameOrder) {
    const std::string longest(127, 'n');
    std::vector<Account> many;
    Names in_order;
    for (int i = 1000; i < 1600; ++i) {
        in_order.push_back("u" + std::to_string(i));
        many.insert(many.begin(), {in_order.back()});
    }
    const std::pair<std::vector<Account>, Names> cases[] = {
        {{{"b"}, {"aa"}, {"a"}, {"ab"}, {"a#02#"}, {"passwd-only", true, false}},
         {"a", "b", "aa", "ab", "a#02#"}},
        {{{"twice"}, {"twice"}, {"z"}, {"z"}}, {"z", "twice"}},
        {{{longest}, {longest + "n"}, {std::string(300, 'x')}}, {longest}},
        {many, in_order},
    };
    world().vdc = 2;
    for (const auto& [accounts, names] : cases) {
        write(accounts);
        EXPECT_EQ(names, walk());
    }
}

TEST_F(Enumeration, UserTraces) {
    const std::string each =
        "security_conf_get_vdc_user(b)\n"
        "security_conf_get_vdc_user(a)\n"
        "security_conf_compare_username\n";
    const struct {
        const char* given;
        std::vector<Account> accounts;
        uint32_t want;
        std::string traces;
    } cases[] = {
        {"", {{"b"}, {"a"}}, 0, each + "return a\n"},
        {"aa", {{"b"}, {"a"}}, 0x404a001c, each + "USER_END_OF_TABLE\n"},
        {"b", {{"b"}, {"a"}}, 0x404a001c, each},
        {"", {}, 0x404a001c, "USER_END_OF_TABLE\n"},
    };
    for (const auto& c : cases) {
        write(c.accounts);
        world().traces.clear();
        char name[128];
        EXPECT_EQ(c.want, security_conf_user_getnext(0, strcpy(name, c.given)));
        std::string traces;
        for (const std::string& trace : world().traces) traces += trace;
        EXPECT_EQ("security_conf_user_getnext(" + std::string(c.given) + ")\n" + c.traces, traces);
    }
}

std::string roles_reply(int32_t count, const Names& roles) {
    security_user_roles record = list("", roles);
    record.num_roles = count;
    return bytes_of(record);
}

TEST_F(Enumeration, RolesOfAUserInNameOrder) {
    world().reply.record = roles_reply(5, {"ops", "aa", "network-admin", "b", "aa"});
    Names walked;
    char role[65] = "";
    while (security_conf_user_role_getnext(6, "alice", role) == 0) walked.push_back(role);
    EXPECT_EQ((Names{"b", "aa", "ops", "network-admin"}), walked);
    const Sent& sent = world().requests.at(0);
    EXPECT_EQ(std::tuple(5155, 1u, 6u), std::tuple(sent.type, sent.operation, sent.connection));
    EXPECT_EQ(padded("alice", 4292), sent.record);
}

TEST_F(Enumeration, RoleWalksThatEnd) {
    const std::string full(65, 'r');
    const struct {
        const char* what;
        Reply reply;
        uint32_t want;
        const char* role;
    } cases[] = {
        {"no roles", {.record = roles_reply(0, {"beyond"})}, 0x404a002d, ""},
        {"a negative count", {.record = roles_reply(-1, {"beyond"})}, 0x404a002d, ""},
        {"a status", {.status = 0x404a0014}, 0x404a0014, ""},
        {"undeliverable", {.status = -1, .error = ECONNREFUSED}, 0x804a0000 | ECONNREFUSED, ""},
        {"a short reply", {.record = std::string(4200, 'x')}, 0x804a0000 | EPROTO, ""},
        {"a count too large", {.record = roles_reply(1 << 30, {})}, 0x404a002d, ""},
        {"a slot without an end", {.record = roles_reply(1, {full})}, 0, full.c_str()},
    };
    for (const auto& c : cases) {
        world().reply = c.reply;
        char role[65] = "";
        EXPECT_EQ(c.want, security_conf_user_role_getnext(0, "alice", role)) << c.what;
        EXPECT_EQ(std::string(c.role).substr(0, 64), role) << c.what;
    }
    char role[65] = "";
    EXPECT_EQ(0x404a0014u, security_conf_user_role_getnext(0, std::string(128, 'u').c_str(), role));
}

TEST_F(Enumeration, ErrorTextsWithoutTheToolsPrefix) {
    char text[] = "userdel: user 'x' does not exist: userdel: ";
    EXPECT_STREQ(" user 'x' does not exist: userdel: ", security_conf_get_stderr(text, "userdel:"));
    EXPECT_EQ(text, security_conf_get_stderr(text, "passwd:"));
}

}  // namespace
