// The shared account files as each context sees them.
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <regex>

#include "base/context_name.h"
#include "tests/library/accounts/account_files.h"

namespace {

using VdcAccounts = AccountFiles;
using Names = std::vector<std::string>;

TEST_F(VdcAccounts, ContextsOfStoredNames) {
    constexpr int32_t kNone = INT32_MIN;
    const std::pair<const char*, int32_t> cases[] = {
        {"bob", 1},     {"", 1},         {"bob#02#", 2},   {"bob#12#", 12},
        {"bob#01#", 1}, {"#", kNone},    {"a#", kNone},    {"02#", 2},
        {"2#", kNone},  {"bob#", kNone}, {"bob##", kNone}, {"bob#x2#", kNone},
        {"bob#2x#", 2}, {"bob#02", 1},   {"bob#123#", 23}, {"bob#00#", 0},
        {"bob# 3#", 3}, {"bob#-3#", -3},
    };
    for (const auto& [name, context] : cases) {
        // In a block of exactly its length, so that the sanitizer finds a read before its start.
        const std::string text(name);
        std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
        EXPECT_EQ(context, security_get_vdc_from_username(exact.data())) << name;
        const bool strict = std::regex_match(text, std::regex("bob#[0-9]{2}#"));
        EXPECT_EQ(strict, quill::has_context_suffix(exact.data())) << name;
    }
}

TEST_F(VdcAccounts, EnumerationsShowOneContextUnderPlainNames) {
    write({{"bob"}, {"bob#02#"}, {"bob#12#"}, {"amy#02#"}, {"root"}, {"x##"}, {"cy#01#"}, {"#"}});
    const struct {
        int32_t context;
        Names names;
    } cases[] = {{1, {"bob", "root", "cy#01#"}}, {2, {"bob", "amy"}}, {12, {"bob"}}, {3, {}}};
    for (const auto& c : cases) {
        world().vdc = c.context;
        Names passwd, shadow, passwd_stream, shadow_stream;
        setpwent();
        while (const auto* entry = vdc_getpwent()) passwd.push_back(entry->pw_name);
        endpwent();
        setspent();
        while (const auto* entry = vdc_getspent()) shadow.push_back(entry->sp_namp);
        endspent();
        FILE* stream = fopen("/etc/passwd", "r");
        while (const auto* entry = vdc_fgetpwent(stream)) passwd_stream.push_back(entry->pw_name);
        fclose(stream);
        stream = fopen("/etc/shadow", "r");
        while (const auto* entry = vdc_fgetspent(stream)) shadow_stream.push_back(entry->sp_namp);
        fclose(stream);
        for (const Names& names : {passwd, shadow, passwd_stream, shadow_stream})
            EXPECT_EQ(c.names, names) << c.context;
    }
}

TEST_F(VdcAccounts, LookUpsByPlainName) {
    write({{"bob"}, {"bob#02#"}, {"amy#03#"}});
    const struct {
        int32_t context;
        const char* name;
        const char* found;
        uid_t uid;
    } cases[] = {{1, "bob", "bob", 2000}, {2, "bob", "bob", 2001}, {3, "bob", nullptr, 0},
                 {3, "amy", "amy", 2002}, {1, "amy", nullptr, 0},  {100, "bob", nullptr, 0},
                 {1, "", nullptr, 0}};
    for (const auto& c : cases) {
        world().vdc = c.context;
        const passwd* entry = vdc_getpwnam(c.name);
        const spwd* shadow = vdc_getspnam(c.name);
        ASSERT_EQ(c.found != nullptr, entry != nullptr) << c.name << c.context;
        ASSERT_EQ(c.found != nullptr, shadow != nullptr) << c.name << c.context;
        if (c.found == nullptr) continue;
        EXPECT_STREQ(c.found, entry->pw_name);
        EXPECT_STREQ(c.found, shadow->sp_namp);
        EXPECT_EQ(c.uid, entry->pw_uid);
    }
}

// Look-ups by user id find accounts of all contexts; outside context 1 four characters are removed.
TEST_F(VdcAccounts, LookUpByIdCutsFourCharacters) {
    write({{"bob"}, {"bob#02#"}, {"robert"}});
    const struct {
        int32_t context;
        uid_t uid;
        const char* name;
    } cases[] = {{1, 2001, "bob#02#"}, {2, 2001, "bob"}, {7, 2001, "bob"}, {2, 2002, "ro"}, {2, 2000, "bob"}};
    for (const auto& c : cases) {
        world().vdc = c.context;
        const passwd* entry = vdc_getpwuid(c.uid);
        ASSERT_NE(nullptr, entry);
        EXPECT_STREQ(c.name, entry->pw_name) << c.context;
    }
    EXPECT_EQ(nullptr, vdc_getpwuid(4242));
}

TEST_F(VdcAccounts, StoredNamesAreBounded) {
    const std::string longest(127, 'n'), too_long(200, 'n'), file(1100, 'f');
    const struct {
        int32_t context;
        std::string name, user, file;
    } cases[] = {
        {1, "admin", "admin", "admin"},
        {3, "admin", "admin#03#", "admin#03#"},
        {12, "", "#12#", "#12#"},
        {1, too_long, too_long.substr(0, 131), too_long},
        {2, longest, longest + "#02#", longest + "#02#"},
        {2, longest + "n", longest + "n#02", longest + "n#02#"},
        {2, too_long, too_long.substr(0, 131), too_long + "#02#"},
        {1, file, file.substr(0, 131), file.substr(0, 1023)},
        {2, file, file.substr(0, 131), file.substr(0, 1023)},
    };
    for (const auto& c : cases) {
        world().vdc = c.context;
        EXPECT_EQ(c.user, security_get_system_username(c.name.c_str()));
        EXPECT_EQ(c.file, security_get_system_filename(c.name.c_str()));
    }
}

TEST_F(VdcAccounts, OneBufferOfNamesIsSharedAndAnotherIsNot) {
    const char* name = security_get_system_username("first");
    const char* file = security_get_system_filename("file");
    vdc_getpwnam("second");
    EXPECT_STREQ("second", name);
    vdc_getspnam("third");
    EXPECT_STREQ("third", name);
    EXPECT_STREQ("file", file);
}

TEST_F(VdcAccounts, CountsThoseInBothFiles) {
    write({{"bob"},
           {"amy"},
           {"only", true, false},
           {"shadow", false, true},
           {"bob#02#"},
           {"cy#02#", true, false}});
    for (const auto& [context, want] : {std::pair{1, 2u}, {2, 1u}, {3, 0u}}) {
        world().vdc = context;
        uint32_t count = 99;
        EXPECT_EQ(0u, cmi_security_num_users_get(5, &count));
        EXPECT_EQ(want, count) << context;
    }
}

TEST_F(VdcAccounts, ShadowLookUpsDifferInTheStatusOfAFailure) {
    const struct {
        std::optional<platform_shadow_entry> shadow;
        uint32_t first, second;
        bool found;
    } cases[] = {
        {{{0, "x", 5}}, 0, 0, true}, {{{0x41, "x", 5}}, 0x41, 0, false}, {std::nullopt, 0, 0, false}};
    for (const auto& c : cases) {
        world().shadow = c.shadow;
        platform_shadow_entry* entry = reinterpret_cast<platform_shadow_entry*>(1);
        EXPECT_EQ(c.first, security_conf_get_vdc_user(9, "bob#02#", &entry));
        EXPECT_EQ(c.found, entry != nullptr);
        entry = reinterpret_cast<platform_shadow_entry*>(1);
        EXPECT_EQ(c.second, security_conf_get_user(9, "bob#02#", &entry));
        EXPECT_EQ(c.found, entry != nullptr);
    }
    EXPECT_EQ((std::pair<uint32_t, std::string>(9, "bob#02#")), world().shadow_look_ups.at(0));
}

}  // namespace
