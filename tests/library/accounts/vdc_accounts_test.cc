// The shared account files as each context sees them.
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <regex>

#include "base/context_name.h"
#include "tests/library/accounts/account_files.h"

namespace {

using VdcAccounts = AccountFiles;

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

const char* name_of(const passwd* entry) { return entry->pw_name; }
const char* name_of(const spwd* entry) { return entry->sp_namp; }

template <class Next>
std::string walk(Next next) {
    std::string names;
    while (const auto* entry = next()) names += name_of(entry) + std::string(" ");
    return names;
}
template <class Entry>
std::string walk(const char* path, Entry* (*next)(FILE*)) {
    FILE* stream = fopen(path, "r");
    const std::string names = walk([&] { return next(stream); });
    fclose(stream);
    return names;
}

TEST_F(VdcAccounts, EnumerationsShowOneContextUnderPlainNames) {
    write({{"bob"}, {"bob#02#"}, {"bob#12#"}, {"amy#02#"}, {"root"}, {"x##"}, {"cy#01#"}, {"#"}});
    const std::pair<int32_t, const char*> cases[] = {
        {1, "bob root cy#01# "}, {2, "bob amy "}, {12, "bob "}, {3, ""}};
    for (const auto& [context, names] : cases) {
        world().vdc = context;
        setpwent();
        EXPECT_EQ(names, walk(vdc_getpwent));
        endpwent();
        setspent();
        EXPECT_EQ(names, walk(vdc_getspent));
        endspent();
        EXPECT_EQ(names, walk("/etc/passwd", vdc_fgetpwent));
        EXPECT_EQ(names, walk("/etc/shadow", vdc_fgetspent));
    }
}

TEST_F(VdcAccounts, LookUpsByPlainName) {
    write({{"bob"}, {"bob#02#"}, {"amy#03#"}, {"bob#100#"}});
    const struct {
        int32_t context;
        const char* name;
        uid_t uid;  // 0: not found
    } cases[] = {{1, "bob", 2000}, {2, "bob", 2001}, {3, "bob", 0}, {3, "amy", 2002},
                 {1, "amy", 0},    {100, "bob", 0},  {1, "", 0}};
    for (const auto& c : cases) {
        world().vdc = c.context;
        const passwd* entry = vdc_getpwnam(c.name);
        const spwd* shadow = vdc_getspnam(c.name);
        const std::string want = c.uid == 0 ? "" : c.name;
        EXPECT_EQ(want, entry == nullptr ? "" : entry->pw_name) << c.context;
        EXPECT_EQ(want, shadow == nullptr ? "" : shadow->sp_namp) << c.context;
        EXPECT_EQ(c.uid, entry == nullptr ? 0 : entry->pw_uid);
    }
}

// Look-ups by user id find accounts of all contexts; outside context 1 four characters are removed.
TEST_F(VdcAccounts, LookUpByIdCutsFourCharacters) {
    write({{"bob"}, {"bob#02#"}, {"robert"}, {"four"}});
    const std::tuple<int32_t, uid_t, const char*> cases[] = {{1, 2001, "bob#02#"}, {2, 2001, "bob"},
                                                             {7, 2001, "bob"},     {2, 2002, "ro"},
                                                             {2, 2000, "bob"},     {2, 2003, ""}};
    for (const auto& [context, uid, name] : cases) {
        world().vdc = context;
        const passwd* entry = vdc_getpwuid(uid);
        ASSERT_NE(nullptr, entry);
        EXPECT_STREQ(name, entry->pw_name) << context;
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
        {1, too_long.substr(0, 132), too_long.substr(0, 131), too_long.substr(0, 132)},
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
    const Account in_passwd{"only", true, false}, in_shadow{"shadow", false, true};
    write({{"bob"}, {"amy"}, in_passwd, in_shadow, {"bob#02#"}, {"cy#02#", true, false}});
    for (const auto& [context, want] : {std::pair{1, 2u}, {2, 1u}, {3, 0u}}) {
        world().vdc = context;
        uint32_t count = 99;
        EXPECT_EQ(0u, cmi_security_num_users_get(5, &count));
        EXPECT_EQ(want, count) << context;
    }
}

TEST_F(VdcAccounts, ShadowLookUpsDifferInTheStatusOfAFailure) {
    const std::tuple<std::optional<platform_shadow_entry>, uint32_t, bool> cases[] = {
        {{{0, "x", 5}}, 0, true}, {{{0x41, "x", 5}}, 0x41, false}, {std::nullopt, 0, false}};
    for (const auto& [shadow, status, found] : cases)
        for (const auto look_up : {security_conf_get_vdc_user, security_conf_get_user}) {
            world().shadow = shadow;
            auto* entry = reinterpret_cast<platform_shadow_entry*>(1);
            EXPECT_EQ(look_up == security_conf_get_user ? 0 : status, look_up(9, "bob#02#", &entry));
            EXPECT_EQ(found, entry != nullptr);
            EXPECT_EQ((std::pair<uint32_t, std::string>(9, "bob#02#")), world().shadow_look_ups.back());
        }
}

}  // namespace
