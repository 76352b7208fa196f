// Trace history, configuration, TLV messages, file names and texts of statuses.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <sstream>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity/notify.h"
#include "quillsecurity/status.h"
#include "tests/support/box.h"
#include "tests/support/process.h"

namespace {

// ---- Traces. Each test runs in a process of its own, where the history is empty and $QUILL_TRACE was not
// read.

void trace(const std::string& text) {
    const std::string event = std::string("\x66\0\0\0", 4) + text;
    sdwrap_hist_event(0x730000, static_cast<uint32_t>(event.size()), event.data());
}

// The lines of a dump of the history, without their time.
std::vector<std::string> dumped() {
    const int file = memfd_create("dump", 0);
    EXPECT_EQ(0, quill_trace_dump(file));
    std::string bytes(1 << 20, '\0');
    bytes.resize(static_cast<size_t>(pread(file, bytes.data(), bytes.size(), 0)));
    close(file);
    std::vector<std::string> lines;
    std::istringstream stream(bytes);
    for (std::string line; std::getline(stream, line);) {
        EXPECT_EQ("T", line.substr(10, 1)) << line;
        lines.push_back(line.substr(std::min<size_t>(21, line.size())));
    }
    return lines;
}

void check_capacity() {
    EXPECT_TRUE(dumped().empty());
    for (int i = 0; i < 700; ++i) trace(std::to_string(i));
    const auto lines = dumped();
    ASSERT_EQ(512u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(std::to_string(i + 188), lines[i]);
    EXPECT_EQ(-1, quill_trace_dump(-1));
    EXPECT_EQ(EBADF, errno);
}

void check_escaping_and_length() {
    trace(std::string(5000, 'x'));
    trace("ends\nhere\r\x1b[2Jand\x7f");
    trace(
        "\xc2\x9b"
        "2J \xe2\x80\xaegpj.\xe2\x80\xa8 \xff\xc3( caf\xc3\xa9 \xf0\x9f\x94\x91");
    trace(std::string(511, 'x') + "\xc3\xa9");  // cut within a character
    trace(std::string("up to\0the end", 13));
    trace("");
    sdwrap_hist_event(0, 2, "ab");
    sdwrap_hist_event(0, 0, "");
    const std::vector<std::string> want{
        std::string(512, 'x'),
        "ends\\x0ahere\\x0d\\x1b[2Jand\\x7f",
        "\\xc2\\x9b2J \\xe2\\x80\\xaegpj.\\xe2\\x80\\xa8 \\xff\\xc3( caf\xc3\xa9 \xf0\x9f\x94\x91",
        std::string(511, 'x') + "\\xc3",
        "up to",
        "",
        "",
        ""};
    EXPECT_EQ(want, dumped());
}

TEST(Traces, TheHistory) {
    EXPECT_EQ(0, in_child(check_capacity));
    EXPECT_EQ(0, in_child(check_escaping_and_length));
}

TEST(Traces, TheEnvironmentChoosesTheSinks) {
    const struct {
        const char* value;
        bool history, debug;
    } cases[] = {{nullptr, true, false},
                 {"", true, false},
                 {"history", true, false},
                 {"debug", true, true},
                 {"off", false, false}};
    for (const auto& c : cases) {
        const int ended = in_child([&] {
            unsetenv("QUILL_TRACE");
            if (c.value != nullptr) setenv("QUILL_TRACE", c.value, 1);
            EXPECT_EQ(c.history, sdwrap_hist_event_subtype_check(0x730000, 102) == 0);
            EXPECT_EQ(c.debug, sdwrap_chk_int(102, 0, 0, 1) != 0);
        });
        EXPECT_EQ(0, ended) << c.value;
    }
}

TEST(Traces, MessagesGoToStandardErrorUnderTheirModulesName) {
    testing::internal::CaptureStderr();
    buginf(1, "security", 0, "%s has %d%%", "a name", 7);
    EXPECT_EQ("security: a name has 7%\n", testing::internal::GetCapturedStderr());
}

// ---- Configuration, which each test reads in a process of its own

// Writes the file, unless its text is empty, and runs the check.
void with_configuration(const std::string& file, const char* context,
                        const std::function<void(Box&)>& check) {
    const int ended = in_child([&] {
        Box box;
        if (!file.empty()) write_file(box / "platform.conf", file);
        setenv("QUILL_PLATFORM_CONF", (box / "platform.conf").c_str(), 1);
        unsetenv("SYSMGR_VDC_ID");
        if (context != nullptr) setenv("SYSMGR_VDC_ID", context, 1);
        EXPECT_EQ(0, chdir((box / "").c_str()));
        check(box);
    });
    EXPECT_EQ(0, ended) << file << (context == nullptr ? "" : context);
}

// `card` is -1 if it is not configured.
void expect_settings(const std::string& file, const char* environment, int32_t context, int32_t card = -1,
                     const std::vector<uint16_t>& telnet = {}) {
    with_configuration(file, environment, [&](Box&) {
        EXPECT_EQ(context, sysmgrcmn_vdc_id_get());
        card_module_info info{777};
        EXPECT_EQ(card < 0, get_card_module_info(&info) != 0);
        EXPECT_EQ(card < 0 ? 777 : card, info.card_type);
        uint32_t count = 77;
        const uint16_t* types = quill_telnet_card_types(&count);
        EXPECT_EQ(telnet, std::vector<uint16_t>(types, types + count));
    });
}

TEST(Configuration, Lines) {
    const std::string good = "[system]\nvdc_id = 7\ncard_type = 65535\ntelnet_card_types = 12, 13,0\n";
    expect_settings("", nullptr, 1);
    expect_settings(good, nullptr, 7, 65535, {12, 13, 0});
    expect_settings("; a comment\n\n[system]\ncard_type=0 ; zero is a type\n", nullptr, 1, 0);
    expect_settings("[other]\nvdc_id = 7\n[system]\n", nullptr, 1);
    // An invalid line leaves all other settings unchanged.
    for (const char* garbage :
         {"vdc_id = 0", "vdc_id = 100", "vdc_id = 8x", "vdc_id =", "card_type = -1", "card_type = 65536",
          "card_type = twelve", "telnet_card_types = 5, x", "telnet_card_types = 70000", "no such name = 1",
          "neither name nor value", "[system", "\xff\xfe"})
        expect_settings(good + garbage + "\n", nullptr, 7, 65535, {12, 13, 0});
    with_configuration(good, nullptr, [](Box&) {
        setenv("QUILL_PLATFORM_CONF", "platform.conf", 1);
        EXPECT_EQ(1, sysmgrcmn_vdc_id_get()) << "a relative path is not read";
    });
}

TEST(Configuration, TheEnvironmentTakesPrecedence) {
    const std::string file = "[system]\nvdc_id = 7\n";
    for (const char* value : {"1", "99", "42"}) expect_settings(file, value, atoi(value));
    for (const char* value : {"0", "100", "-1", "", "7 ", "x", "4294967297", "0x10"})
        expect_settings(file, value, 7);
    expect_settings("", "0", 1);
}

TEST(Configuration, RolesAndLocales) {
    const std::string longest(64, 'n');
    with_configuration(
        "[system]\nroles = auditor, " + longest + "\nroles = third,\nroles = bad name, other\n" +
            "roles = " + longest + "n\nlocales = locales\nlocales = /proc/self/cwd/all\n",
        nullptr, [&](Box& box) {
            write_file(box / "locales", "relative\n");
            write_file(box / "all", "# comment\n#off\nnorth\n\n  south \ntwo words\n" + longest + "n\n");
            for (const char* role : {"auditor", longest.c_str(), "third", "network-admin", "network-operator",
                                     "vdc-admin", "vdc-operator", "priv-0", "priv-15"})
                EXPECT_EQ(0, vshd_perm_group_role_name_verify(0, role)) << role;
            const std::string longer = longest + "n";
            for (const char* role : {static_cast<const char*>(nullptr), "", "bad name", "other", "priv-16",
                                     "priv-01", "priv-", "priv-x", "priv--1", "network", longer.c_str()})
                EXPECT_EQ(-1, vshd_perm_group_role_name_verify(0, role));
            for (const char* locale : {"north", "south"})
                EXPECT_EQ(0, vshd_perm_locale_name_verify(0, locale));
            for (const char* locale : {static_cast<const char*>(nullptr), "", "relative", "#off", "two words",
                                       "two", longer.c_str()})
                EXPECT_EQ(-1, vshd_perm_locale_name_verify(0, locale));
        });
}

// ---- TLV messages

struct Mixed {
    uint16_t two;
    uint64_t eight;
    char text[4], converted[3];
};

uint32_t converted_length = 3;  // of the converter's value; its field takes 3 bytes

uint32_t to_tlv(const void* structure, const void*, void** data, uint32_t* length, uint32_t* count) {
    *data = memcpy(tlvu_malloc(3), static_cast<const Mixed*>(structure)->converted, 3);
    *length = converted_length;
    *count = 1;
    return 0;
}
uint32_t to_structure(void* structure, const void* value) {
    memcpy(static_cast<Mixed*>(structure)->converted, value, 3);
    return 0;
}
uint32_t size_in_tlv() { return 3; }

TEST(TlvMessages, NumbersTextsAndConvertedFields) {
    constexpr uintptr_t kBlock = TLVU_KIND_BLOCK;
    const struct {
        tlvu_table_header header;
        tlvu_field_descriptor fields[5];
    } table{{sizeof(Mixed), "mixed", 0, 0},
            {{1, 2, offsetof(Mixed, two), kBlock, 0, 0, 0, 0, 0, 2, -1, 0},
             {2, 8, offsetof(Mixed, eight), kBlock, 0, 0, 0, 0, 0, 8, -1, 0},
             {3, 1, offsetof(Mixed, text), TLVU_KIND_STRING, 0, 0, 0, 0, 0, 4, -1, 0},
             {4, 3, offsetof(Mixed, converted), TLVU_KIND_CONVERTED, reinterpret_cast<uintptr_t>(to_tlv),
              reinterpret_cast<uintptr_t>(to_structure), reinterpret_cast<uintptr_t>(size_in_tlv), 0, 0, 3,
              -1, 0},
             {-1, -1, -1, 0, 0, 0, 0, 0, 0, -1, -1, 0}}};
    const Mixed mixed{0x0102, 0x0102030405060708, {'t', 'e', 'x', 't'}, {'a', 'b', 'c'}};
    const std::string want(
        "\0\0\0\1\0\0\0\2\1\2\0\0\0\2\0\0\0\x8\1\2\3\4\5\6\7\x8"
        "\0\0\0\3\0\0\0\4text\0\0\0\4\0\0\0\3"
        "abc",
        49);
    void* tlv = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(0u, tlvu_table_convert_struct_to_tlv(&table, &mixed, &tlv, &length));
    EXPECT_EQ(want, std::string(static_cast<char*>(tlv), length));
    free(tlv);
    converted_length = 2;
    EXPECT_EQ(TLVU_MALFORMED, tlvu_table_convert_struct_to_tlv(&table, &mixed, &tlv, &length));

    Mixed read{};
    void* structure = &read;
    const auto parse = [&](const std::string& message) {
        return tlvu_table_convert_tlv_to_struct(&table, message.data(), static_cast<uint32_t>(message.size()),
                                                &structure, TLVU_MODE_FILL);
    };
    for (size_t cut = 1; cut < want.size(); ++cut)
        EXPECT_EQ(cut == 10 || cut == 26 || cut == 38 ? TLVU_OK : TLVU_MALFORMED, parse(want.substr(0, cut)));
    const std::string shorter = std::string(want).replace(45, 4, "\2ab");  // the converted field
    EXPECT_EQ(TLVU_MALFORMED, parse(shorter));
    tlvu_field_itr walk;
    EXPECT_EQ(0u, tlvu_field_itr_init(&table, shorter.data(), static_cast<uint32_t>(shorter.size()), &walk));
    uint32_t id = 0;
    for (const uint32_t status : {TLVU_OK, TLVU_OK, TLVU_OK, TLVU_MALFORMED})
        EXPECT_EQ(status, tlvu_field_itr_get_next(&walk, &id, &tlv, &length));
    EXPECT_EQ(0u, parse(want));
    EXPECT_EQ(mixed.two, read.two);
    EXPECT_EQ(0, memcmp(&mixed.eight, &read.eight, 15));
}

// ---- Names of files

TEST(FileNames, AreSplitAtTheFirstColon) {
    const std::string longest(255, 'x');
    const struct {
        std::string uri;
        int32_t want;
        std::string device, path;
    } cases[] = {
        {"bootflash:/keys/a.pub", 0, "bootflash", "keys/a.pub"},
        {"volatile:a.pub", 0, "volatile", "a.pub"},
        {"nowhere://b:c", 0, "nowhere", "/b:c"},
        {"/keys/a.pub", 0, "", "keys/a.pub"},
        {":", 0, "", ""},
        {"", 0, "", ""},
        {longest + ":/" + longest, 0, longest, longest},
        {longest + "x:a", -1, "", ""},
        {"a:" + longest + "x", -1, "", ""},
    };
    for (const auto& c : cases) {
        char device[256] = "before", path[256] = "before";
        EXPECT_EQ(c.want, vsh_xml_parse_uri(c.uri.c_str(), device, path)) << c.uri;
        EXPECT_EQ(c.device, device) << c.uri;
        EXPECT_EQ(c.path, path) << c.uri;
    }
}

// ---- Texts

TEST(StatusTexts, OfKnownAndUnknownStatuses) {
#define ROW(name, value, text) value,
    std::vector<uint32_t> seen{SECURITY_STATUS_LIST(ROW) PSS_STATUS_LIST(ROW)};
#undef ROW
    EXPECT_STREQ("the daemon has too many clients", syserr2str(SECURITY_ERR_BUSY));
    EXPECT_STREQ("no space left on the store's device", syserr2str(PSS_FULL));
    std::sort(seen.begin(), seen.end());
    // Success and "no key" are in both lists.
    EXPECT_EQ(seen.end() - 2, std::unique(seen.begin(), seen.end()))
        << "each other status is in one list only";
    EXPECT_STREQ("the request could not be delivered: Connection refused",
                 syserr2str(SECURITY_ERR_TRANSPORT | ECONNREFUSED));
    EXPECT_STREQ("the request could not be delivered: unknown reason",
                 syserr2str(SECURITY_ERR_TRANSPORT | 0xfff));
    EXPECT_STREQ("unknown status 0x804a1000", syserr2str(SECURITY_ERR_TRANSPORT | 0x1000));
    EXPECT_STREQ("unknown status 0xffffffff", syserr2str(0xffffffff));
}

}  // namespace
