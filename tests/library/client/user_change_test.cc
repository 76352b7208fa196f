// User management with a scripted channel and the sandbox's account files: which requests are sent, in which
// order and with which bytes, and what is done with the replies.
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "tests/library/accounts/account_files.h"

namespace {

time_t now;  // the result of time(2)

constexpr uint32_t kUser = 157, kPassword = 155, kStrength = 161, kKey = 170, kKeyLookUp = 5156;

}  // namespace

extern "C" time_t time(time_t* into) noexcept {
    if (into != nullptr) *into = now;
    return now;
}

namespace {

class UserChange : public AccountFiles {
 protected:
    void SetUp() override {
        AccountFiles::SetUp();
        now = 1800000000;  // 2027-01-15 08:00 UTC
        setenv("TZ", "UTC", 1);
        tzset();
        write({{"root"}});
        record = {};
        strcpy(record.name, "alice");
        record.expiry_year = record.expiry_month = record.expiry_day = -1;
    }

    void exists() { world().shadow = platform_shadow_entry{0, "x", -1}; }
    void date(int year, int month, int day) {
        record.expiry_year = year;
        record.expiry_month = month;
        record.expiry_day = day;
    }
    uint32_t config(uint32_t operation) { return cmi_common_user_config(3, operation, &record); }

    static std::vector<uint32_t> types() {
        std::vector<uint32_t> found;
        for (const Sent& sent : world().requests) found.push_back(static_cast<uint32_t>(sent.type));
        return found;
    }
    // The expected request for the account: zero except for the given fields.
    static std::string account(const std::string& password, const std::string& expiry,
                               const std::string& role) {
        security_user_manage message{};
        strcpy(message.user_name, "alice");
        password.copy(message.password, sizeof message.password);
        expiry.copy(message.expiry, sizeof message.expiry);
        message.num_roles = role.empty() ? 0 : 1;
        role.copy(message.roles[0], sizeof message.roles[0] - 1);
        role.copy(message.role, sizeof message.role - 1);
        return bytes_of(message);
    }
    static Reply failure(int32_t status, int32_t code, const std::string& error) {
        security_user_manage message{};
        message.return_code = code;
        error.copy(message.error, sizeof message.error);
        return {.status = status, .record = bytes_of(message)};
    }

    common_user_record record{};
};

// The password (none, clear, stored), the date (none, given, cleared) and the role decide which requests are
// sent, for new and for existing accounts.
TEST_F(UserChange, EachChangeSendsItsRequests) {
    const std::string secret = "Xk9#mVq2!wLz";
    for (int choice = 0; choice < 36; ++choice) {
        SetUp();
        const int password = choice % 3, dated = choice / 3 % 3;
        const bool old = choice / 9 % 2 == 1;
        const std::string role = choice < 18 ? "" : std::string(64, 'r');
        if (old) exists();
        if (password != 0) strcpy(record.password, secret.c_str());
        record.password_format = static_cast<uint8_t>(password);
        if (dated == 1) date(2030, 1, 5);
        if (dated == 2) date(0, 0, 0);
        strcpy(record.role, role.c_str());
        record.account_kind = 9;
        ASSERT_EQ(0u, config(SET_REQ));
        EXPECT_EQ(2, record.account_kind);

        std::map<uint32_t, std::string> records = {
            {kStrength, be32(13) + be32(1)},
            {kUser, account(password == 2 ? secret : "", dated == 1 ? "2030-1-5" : "", role)},
            {kPassword, padded(padded("alice", 128) + secret, 8452)}};
        std::vector<uint32_t> want;
        if (password == 1) want.push_back(kStrength);
        if (!old || dated != 0 || password == 2) want.push_back(kUser);
        if (password == 1) want.push_back(kPassword);
        ASSERT_EQ(want, types()) << choice;
        for (size_t i = 0; i < want.size(); ++i) {
            const Sent& sent = world().requests[i];
            EXPECT_EQ(3u, sent.connection);
            EXPECT_EQ(want[i] == kStrength ? +GET_REQ : +SET_REQ, static_cast<int>(sent.operation));
            EXPECT_EQ(records[want[i]], sent.record) << choice;
        }
    }
}

TEST_F(UserChange, ErrorsAreFoundBeforeAnythingIsSent) {
    const std::tuple<const char*, uint32_t, uint32_t> cases[] = {
        {"", SET_REQ, 0x404a0031},
        {"", DEL_REQ, 0x404a0031},
        {"alice", DEL_REQ, 0x404a0014},
        {"daemon", SET_REQ, 0x404a0031}};  // in the sandbox's list of internal users
    for (const auto& [name, operation, want] : cases) {
        strcpy(record.name, name);
        EXPECT_EQ(want, config(operation)) << name;
    }
    SetUp();
    world().shadow = platform_shadow_entry{77, "", -1};
    EXPECT_EQ(1u, config(SET_REQ));
    EXPECT_EQ(1u, config(GET_REQ));
    EXPECT_TRUE(world().requests.empty());

    SetUp();
    strcpy(record.password, "alice");
    world().reply.record = be32(13) + be32(1);
    EXPECT_EQ(0x404a002fu, config(SET_REQ));
    EXPECT_EQ((std::vector{kStrength}), types());
    EXPECT_NE('\0', cmi_common_user_err_str[0]);
}

TEST_F(UserChange, ThereIsRoomFor256Users) {
    // More than 256 were created by other programs.
    for (const auto& [count, want] : {std::pair{255, 0u}, {256, 0x404a0033}, {257, 0}}) {
        std::vector<Account> accounts;
        for (int i = 0; i < count; ++i) accounts.push_back({"u" + std::to_string(i)});
        write(accounts);
        EXPECT_EQ(want, config(SET_REQ)) << count;
    }
}

TEST_F(UserChange, DatesMustBeInTheCalendarAndNotPast) {
    const std::string no_such_day =
        "3 canonized_time_struct->tm_year=2027,canonized_time_struct->tm_mon=3,canonized_time_struct->tm_mday=2,"
        "canonized_time_struct->tm_isdst=0,time_struct.tm_year=2027,time_struct.tm_mon=2,time_struct.tm_mday=30,"
        "time_struct.tm_isdst=-1,canonized_time=1803945600,today=1800000000";
    const struct {
        int year, month, day;
        uint32_t want;
        Texts log;
    } cases[] = {
        {2037, 12, 31, 0, {}},
        {2038, 1, 1, 0x404a0030, {}},
        {1901, 12, 31, 0x404a0030, {}},
        {2027, 1, 16, 0, {}},
        {2027, 1, 15, 0x404a0030, {"3 expiry time = 1799971200, today = 1800000000"}},  // its first second
        {1902, 1, 1, 0x404a0030, {"3 expiry time = -2145916800, today = 1800000000"}},
        {2027, 2, 30, 0x404a0030, {no_such_day}},
        {2147483647, 2147483647, 2147483647, 0x404a0030, {}},
        {2027, 0, 1, 0, {}},  // not a date: ignored
    };
    for (const auto& c : cases) {
        SetUp();
        date(c.year, c.month, c.day);
        EXPECT_EQ(c.want, config(SET_REQ)) << c.year << "-" << c.month << "-" << c.day;
        EXPECT_EQ(c.log, log_lines());
        EXPECT_EQ(c.want == 0 ? 1u : 0u, world().requests.size());
    }
}

TEST_F(UserChange, FailuresHaveTheDaemonsText) {
    // Creation: the text unchanged, perhaps without a terminator.
    world().reply = failure(0x404a0101, 9, std::string(300, 'e'));
    EXPECT_EQ(0x404a0101u, config(SET_REQ));
    EXPECT_EQ(9, cmi_common_user_return_code);
    EXPECT_EQ(std::string(256, 'e'), std::string(cmi_common_user_err_str, 256));

    // Deletion: without the name of the tool, and terminated.
    exists();
    world().reply = failure(0x404a0101, 8, "see userdel: " + std::string(300, 'd'));
    EXPECT_EQ(0x404a0101u, config(DEL_REQ));
    EXPECT_EQ(8, cmi_common_user_return_code);
    EXPECT_EQ(std::string(255, 'd'), cmi_common_user_err_str);
    EXPECT_EQ(account("", "", ""), world().requests.back().record);
    EXPECT_EQ(uint32_t{DEL_REQ}, world().requests.back().operation);

    // A reply that is too short is a failure and changes nothing; a missing one counts as success.
    world().reply = {.status = 0x404a0101, .record = std::string(12864, 'x')};
    EXPECT_EQ(0x404a0101u, config(DEL_REQ));
    EXPECT_EQ(8, cmi_common_user_return_code);
    for (const Reply& silent : {Reply{.status = 0x404a0101, .missing = true}, Reply{.status = -1}}) {
        world().reply = silent;
        EXPECT_EQ(0u, config(DEL_REQ));
        date(2030, 1, 1);
        EXPECT_EQ(static_cast<uint32_t>(silent.status), config(SET_REQ));
    }
}

TEST_F(UserChange, PasswordFailuresEndBeforeTheKey) {
    exists();
    strcpy(record.password, "Xk9#mVq2!wLz");
    strcpy(record.ssh_key, "bootflash:a.pub");
    security_passwd answer{};
    strcpy(answer.output, "said");
    ("x passwd:" + std::string(4087, 'p')).copy(answer.error, sizeof answer.error);
    const std::string bytes = bytes_of(answer);
    world().replies[1] = {.status = 0x404a0101, .record = bytes};
    EXPECT_EQ(0x404a0101u, config(SET_REQ));
    EXPECT_EQ(std::string(255, 'p'), cmi_common_user_err_str);
    EXPECT_EQ((std::vector{kStrength, kPassword}), types());

    world().replies[3] = {.status = -1, .error = ECONNREFUSED};
    EXPECT_EQ(0x404a000bu, config(SET_REQ));
    EXPECT_EQ(std::string(255, 'p'), cmi_common_user_err_str);  // there was no text

    char text[5] = "", error[4096] = "";
    world().replies[4] = {.status = 0, .record = bytes};
    EXPECT_EQ(0u, security_change_passwd(3, "alice", "x", text, error));
    EXPECT_STREQ("said", text);
    EXPECT_EQ(4095u, strlen(error));
}

TEST_F(UserChange, KeysComeFromKnownDevices) {
    exists();
    write_file("/volatile/a.pub", "ssh-rsa AAAA not a key\n");
    for (const char* uri : {"slot0:a.pub", "a.pub", ":a.pub", "bootflash:"}) {  // the last is no file
        strcpy(record.ssh_key, uri);
        EXPECT_EQ(0x404a0029u, config(SET_REQ)) << uri;
    }
    EXPECT_TRUE(world().requests.empty());
    world().uri_result = 5;
    EXPECT_EQ(5u, config(SET_REQ));
}

TEST_F(UserChange, ReadingDescribesTheAccount) {
    const struct {
        const char* password;
        int32_t days;
        int kind;
        std::array<int, 6> expiry;  // year, month, day, hour, minute, second
    } cases[] = {
        {"x", -1, 2, {0, 0, 0, 7, 7, 7}},  // the time of day is unchanged
        {"!!!!!!!!!!!", 0, 3, {1970, 1, 1, 23, 59, 59}},
        {"!!!!!!!!!!", 20454, 2, {2026, 1, 1, 23, 59, 59}},
        {"!!!!!!!!!!!!", 24854, 2, {2038, 1, 18, 23, 59, 59}},
    };
    for (const auto& c : cases) {
        SetUp();
        record.expiry_hour = record.expiry_minute = record.expiry_second = 7;
        strcpy(record.ssh_key, "something older");
        world().shadow = platform_shadow_entry{0, c.password, c.days};
        world().reply = {.status = 0x404a0014};
        EXPECT_EQ(0u, config(GET_REQ));
        EXPECT_EQ(c.kind, record.account_kind);
        EXPECT_EQ(c.expiry,
                  (std::array<int, 6>{record.expiry_year, record.expiry_month, record.expiry_day,
                                      record.expiry_hour, record.expiry_minute, record.expiry_second}));
        EXPECT_EQ(padded("", 256), bytes_of(record.ssh_key));
    }
    // The second request is sent without the name.
    ASSERT_EQ((std::vector{kKeyLookUp, kKeyLookUp}), types());
    EXPECT_EQ(padded("alice", 2328), world().requests[0].record);
    EXPECT_EQ(padded("", 8321), world().requests[1].record);

    world().replies[3] = {};
    EXPECT_EQ(0u, config(GET_REQ));
    EXPECT_STREQ("configured", record.ssh_key);
    world().reply = {.status = 0x404a0102};  // any other status means no; no second request is sent
    EXPECT_EQ(0u, cmi_security_common_user_ssh_key_configured(3, "alice"));
    EXPECT_EQ(5u, world().requests.size());

    world().shadow.reset();
    EXPECT_EQ(0x404a0031u, config(GET_REQ));
    write({{"zed"}, {"alice"}});
    EXPECT_EQ(0x404a001cu, config(GETNEXT_REQ));
}

TEST_F(UserChange, WrappersFillTheFrame) {
    const std::string name(200, 'n');
    EXPECT_EQ(0x404a0034u, cmi_security_common_user_create(3, "al", "2030-1", "", "", 1, 2, "admin", 5));
    EXPECT_EQ(0u, cmi_security_common_user_create(3, name.c_str(), "2030-1-5", "vdc-admin", nullptr, 1, 2,
                                                  "admin", 5));
    ASSERT_EQ((std::vector{kUser}), types());
    const auto sent = [](size_t i) {
        security_user_manage message;
        memcpy(&message, world().requests.at(i).record.data(), sizeof message);
        return message;
    };
    EXPECT_EQ(name.substr(0, 127), sent(0).user_name);
    EXPECT_STREQ("2030-1-5", sent(0).expiry);
    EXPECT_STREQ("vdc-admin", sent(0).role);
    EXPECT_STREQ("admin", security_cmi_username);
    EXPECT_EQ(5u, security_cmi_session_id);

    // A placeholder has a password that matches nothing and expires a day later.
    EXPECT_EQ(0u, cmi_security_common_user_create(3, "al", "never", "", "secret", 1, 3, nullptr, 0));
    EXPECT_STREQ("!!!!!!!!!!!", sent(1).password);
    EXPECT_STREQ("2027-1-16", sent(1).expiry);

    common_user_frame frame{};
    frame.kind = 3;
    frame.text[0] = 'x';
    EXPECT_EQ(0u, cmi_security_common_user_config(3, GET_REQ, &frame, "a", 1));
    EXPECT_EQ(1u, frame.body.count);
    EXPECT_EQ('\0', frame.text[0]);
    frame.kind = 4;
    EXPECT_EQ(0u, cmi_security_common_user_config(3, SET_REQ, &frame, "a", 1));
    EXPECT_EQ(2u, world().requests.size());

    // From then on the process accepts dates in the past.
    EXPECT_EQ(0x404a0030u, cmi_security_common_user_create(3, "al", "2020-1-1", "", "", 1, 2, nullptr, 0));
    EXPECT_EQ(0u, cmi_security_common_create_expired_user(3, "al", "2020-1-1", "", "", 1, 2, nullptr, 0));
    EXPECT_EQ(0u, cmi_security_common_user_create(3, "al", "2020-1-1", "", "", 1, 2, nullptr, 0));
}

TEST_F(UserChange, ResultsOfTheSelfTestAreUnchanged) {
    const std::string bytes = std::string(12, 'r') + bytes_of(3) + std::string(160, 'r');
    world().reply.record = bytes;
    char result[177] = "";
    EXPECT_EQ(0u, cmi_post_lc_result(3, result));
    EXPECT_EQ(bytes, std::string(result, 176));
    EXPECT_EQ(padded("", 176), world().requests[0].record);
    EXPECT_EQ("cmi_post_lc_result(2985): num_entries :3", world().traces.back());
    world().reply.record = bytes.substr(100);
    EXPECT_EQ(0x804a0000u | EPROTO, cmi_post_lc_result(3, result));
}

}  // namespace
