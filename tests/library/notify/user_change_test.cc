#include <cstring>

#include "tests/fakes/library_test.h"
#include "tests/fakes/log.h"

namespace {

using UserChange = LibraryTest;

// Parses the last notification, as a listener does.
security_notification received() {
    const FakeMessage message{173, world().announced.back().payload};
    security_notification structure;
    memset(&structure, 0xaa, sizeof structure);
    EXPECT_EQ(0, security_mts_usernotif_parser(&message, &structure));
    return structure;
}

TEST_F(UserChange, IsSentLoggedAndRead) {
    security_role_set roles{2, {}};
    strcpy(roles.roles[0], "network-admin");
    strcpy(roles.roles[1], "ops");
    const char* texts[] = {"New user added with username", "Deleted user", "Modified user",
                           "Login failed for user", "Password changed for user"};
    for (uint32_t type = 1; type <= 5; ++type) {
        EXPECT_EQ(0u, security_userchange_notify(9, type, "amy", 0x01020304, &roles, "a text"));
        const Announced& sent = world().announced.back();
        EXPECT_EQ((std::vector<uint32_t>{9, 0xFE000000u, 0, 173, 0, 0, 0}), sent.words);
        const security_notification got = received();
        EXPECT_EQ(type, got.type);
        EXPECT_STREQ("amy", got.user_name);
        EXPECT_EQ(0x01020304u, got.number);
        EXPECT_EQ(bytes_of(roles), bytes_of(got.role_set));
        EXPECT_STREQ("a text", got.text);
        EXPECT_EQ("85 " + std::string(texts[type - 1]) + " amy", log_lines().back());
        EXPECT_STREQ(texts[type - 1], security_notification_msg[type - 1]);
    }
}

TEST_F(UserChange, NullTextsAreZeroAndLongOnesCut) {
    EXPECT_EQ(0u, security_userchange_notify(9, 7, nullptr, 0, nullptr, nullptr));
    security_notification want{};
    want.type = 7;
    EXPECT_EQ(bytes_of(want), bytes_of(received()));
    EXPECT_EQ("85  ", log_lines().back());  // a type without a text

    const std::string name(128, 'n'), text(40, 't');
    const std::string longer_name = name + "more", longer_text = text + "x";
    EXPECT_EQ(0u, security_userchange_notify(9, 1, longer_name.c_str(), 0, nullptr, longer_text.c_str()));
    const security_notification got = received();
    EXPECT_EQ(name, bytes_of(got.user_name));
    EXPECT_EQ(0u, got.number);  // no terminator was written to it
    EXPECT_EQ(text, bytes_of(got.text));
}

TEST_F(UserChange, AFailedStepIsReturnedAndNotLogged) {
    log_lines().clear();
    for (const auto& [result, want] : {std::pair{-1, 113u}, {-2, 0xfffffffeu}, {5, 5u}}) {
        world().mts_result = result;
        world().mts_errno = 113;
        EXPECT_EQ(want, security_userchange_notify(9, 1, "amy", 0, nullptr, nullptr));
    }
    world() = World();
    world().tlv_memory = false;
    EXPECT_EQ(1u, security_userchange_notify(9, 1, "amy", 0, nullptr, nullptr));
    EXPECT_TRUE(world().announced.empty());
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(UserChange, UnreadableMessagesAreRefused) {
    security_notification structure;
    memset(&structure, 0xaa, sizeof structure);
    const std::string untouched = bytes_of(structure);
    const FakeMessage empty{173, std::nullopt}, cut{173, "\1"};
    EXPECT_EQ(-1, security_mts_usernotif_parser(nullptr, &structure));
    EXPECT_EQ(-1, security_mts_usernotif_parser(&cut, nullptr));
    EXPECT_EQ(TLVU_BAD_ARGUMENT, security_mts_usernotif_parser(&empty, &structure));
    EXPECT_EQ(TLVU_MALFORMED, security_mts_usernotif_parser(&cut, &structure));
    EXPECT_EQ(untouched, bytes_of(structure));
}

}  // namespace
