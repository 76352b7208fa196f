// The words of the field tables, and converting messages according to them; malformed ones are refused.
#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using FieldTables = LibraryTest;

std::string field(uint32_t id, const std::string& value) {
    return be32(id) + be32(static_cast<uint32_t>(value.size())) + value;
}

intptr_t address(auto* function) { return reinterpret_cast<intptr_t>(function); }

struct Row {
    intptr_t id, width, offset, kind, largest;
    std::vector<intptr_t> converters = {0, 0, 0};
};

void expect_table(const unsigned char* table, intptr_t size, const char* name, const std::vector<Row>& rows) {
    std::vector<intptr_t> want = {size, 0, 0, 0};
    for (const Row& r : rows) {
        want.insert(want.end(), {r.id, r.width, r.offset, r.kind});
        want.insert(want.end(), r.converters.begin(), r.converters.end());
        want.insert(want.end(), {0, 0, r.largest, -1, 0});
    }
    want.insert(want.end(), {-1, -1, -1, 0, 0, 0, 0, 0, -1, -1, -1, 0});
    std::vector<intptr_t> words(want.size());
    memcpy(words.data(), table, words.size() * sizeof words[0]);
    EXPECT_STREQ(name, reinterpret_cast<const char*>(words[1]));
    words[1] = 0;
    EXPECT_EQ(want, words);
}

TEST_F(FieldTables, WordByWord) {
    expect_table(tlvu_security_notification_tbl, 4340, "tlvu_security_notification_t",
                 {{1, 4, 0, 1, 4},
                  {2, 1, 4, 3, 128},
                  {3, 4, 132, 1, 4},
                  {4, 4164, 136, 1, 4164},
                  {5, 1, 4300, 3, 40}});
    const std::vector<intptr_t> converters = {address(security_roles_struct_to_tlv),
                                              address(security_roles_tlv_to_struct),
                                              address(security_roles_get_tlv_data_sz)};
    expect_table(tlvu_role_set_tbl, 4164, "tlvu_role_set_t",
                 {{1, 4, 0, 1, 4}, {3, 4160, 4, 8, 4160, converters}});
}

TEST_F(FieldTables, RoleSetsGoThereAndBack) {
    security_role_set set{2, {}};
    strcpy(set.roles[0], "ops");
    memset(set.roles[63], 'z', sizeof set.roles[63]);
    void* tlv = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(0u, tlvu_role_set_to_tlv(&set, &tlv, &length));
    const std::string roles = bytes_of(set.roles);
    EXPECT_EQ(field(1, be32(2)) + field(3, roles), std::string(static_cast<char*>(tlv), length));
    EXPECT_EQ(length, tlvu_role_set_get_tlv_sz(&set));
    EXPECT_EQ(4164, tlvu_role_set_get_struct_sz(tlv, length));

    security_role_set filled;
    void* structure = memset(&filled, 0xaa, sizeof filled);
    EXPECT_EQ(0u, tlvu_role_set_to_struct(tlv, length, &structure, TLVU_MODE_FILL));
    EXPECT_EQ(bytes_of(set), bytes_of(filled));
    EXPECT_EQ(0u, tlvu_role_set_to_struct(tlv, length, &structure, TLVU_MODE_ALLOCATE));
    EXPECT_NE(&filled, structure);
    EXPECT_EQ(bytes_of(set), bytes_of(*static_cast<security_role_set*>(structure)));
    free(structure);

    void* value = nullptr;
    uint32_t value_length = 0, id = 0;
    tlvu_field_itr itr;
    ASSERT_EQ(0u, tlvu_role_set_field_itr_init(tlv, length, &itr));
    for (const auto& [want, bytes] : {std::pair{1u, be32(2)}, {3u, roles}}) {
        EXPECT_EQ(0u, tlvu_role_set_field_get_next(&itr, &id, &value, &value_length));
        EXPECT_EQ(want, id);
        EXPECT_EQ(0u, tlvu_role_set_get_field(tlv, length, id, &value, &value_length));
        EXPECT_EQ(bytes, std::string(static_cast<char*>(value), value_length));
    }
    EXPECT_EQ(TLVU_NO_FIELD, tlvu_role_set_field_get_next(&itr, &id, &value, &value_length));
    EXPECT_EQ(TLVU_NO_FIELD, tlvu_role_set_get_field(tlv, length, 2, &value, &value_length));
    free(tlv);
    EXPECT_TRUE(world().tlv_errors.empty());
}

// Each message is in a block of its length, so that the sanitizer finds a read past its end.
std::string read(const std::string& message, security_notification& out) {
    const std::vector<char> bytes(message.begin(), message.end());
    void* structure = &out;
    const uint32_t status = tlvu_security_notification_to_struct(
        bytes.data(), static_cast<uint32_t>(bytes.size()), &structure, TLVU_MODE_FILL);
    const int32_t size =
        tlvu_security_notification_get_struct_sz(bytes.data(), static_cast<uint32_t>(bytes.size()));
    EXPECT_EQ(status == 0 ? 4340 : -1, size);
    return status == 0 ? std::to_string(out.type) + " " + std::string(out.user_name, 3) + " " + out.text
                       : "refused";
}

TEST_F(FieldTables, MalformedMessagesAreRefused) {
    const std::string type = field(1, be32(5)), name = field(2, "amy"), text = field(5, "why");
    const std::string none(3, '\0');
    const std::pair<std::string, std::string> cases[] = {
        {type + name + text, "5 amy why"},
        {type + field(9, "new") + name + field(0xffffffff, ""), "5 amy "},
        {name, "0 amy "},
        {type + field(2, ""), "5 " + none + " "},
        {type + name + name, "refused"},
        {field(1, be32(5) + "x"), "refused"},
        {field(2, std::string(129, 'a')), "refused"},
        {field(5, std::string(41, 'a')), "refused"},
        {field(9, "") + be32(2) + be32(0xffffffff) + "amy", "refused"},
        {be32(2) + be32(4) + "amy", "refused"},
    };
    for (const auto& [message, want] : cases) {
        security_notification out;
        memset(&out, 0xaa, sizeof out);
        EXPECT_EQ(want, read(message, out)) << testing::PrintToString(message.substr(0, 60));
        EXPECT_EQ(want == "refused" ? 0xaaaaaaaa : 0, out.number);
    }
    // A message that is cut has whole fields or is refused.
    const std::string whole = type + name + text;
    for (size_t length = 1; length < whole.size(); ++length) {
        security_notification out;
        const bool border = length == type.size() || length == type.size() + name.size();
        EXPECT_EQ(!border, read(whole.substr(0, length), out) == "refused") << length;
    }
}

TEST_F(FieldTables, FailuresAreReportedByName) {
    security_role_set set{};
    void* block = nullptr;
    uint32_t length = 0;
    world().tlv_memory = false;
    EXPECT_EQ(TLVU_NO_MEMORY, tlvu_role_set_to_tlv(&set, &block, &length));
    EXPECT_EQ(TLVU_NO_MEMORY, tlvu_security_notification_to_struct("", 0, &block, TLVU_MODE_ALLOCATE));
    EXPECT_EQ(nullptr, block);
    EXPECT_EQ(TLVU_BAD_ARGUMENT, tlvu_role_set_to_struct("", 0, &block, 2));
    EXPECT_EQ(-1, tlvu_role_set_get_struct_sz(nullptr, 0));
    EXPECT_EQ((Texts{"tlvu_role_set_to_tlv: ERR 0x1\n", "tlvu_security_notification_to_struct: ERR 0x1\n",
                     "tlvu_role_set_to_struct: ERR 0x49\n", "tlvu_role_set_get_struct_sz: ERR 0x49\n"}),
              world().tlv_errors);
    uint32_t count = 0;
    const auto to_tlv = security_roles_struct_to_tlv;
    EXPECT_EQ(1u, to_tlv(&set, nullptr, &block, &length, &count));
    world().tlv_memory = true;
    EXPECT_EQ(0u, to_tlv(&set, nullptr, &block, &length, &count));
    EXPECT_EQ(1u, count);
    free(block);
    EXPECT_EQ(73u, to_tlv(&set, nullptr, nullptr, &length, &count));
    EXPECT_EQ(73u, to_tlv(&set, nullptr, &block, nullptr, &count));
    EXPECT_EQ(73u, to_tlv(&set, nullptr, &block, &length, nullptr));
    EXPECT_EQ(73u, to_tlv(nullptr, nullptr, &block, &length, &count));
    EXPECT_EQ(73u, security_roles_tlv_to_struct(nullptr, &set));
    EXPECT_EQ(73u, security_roles_tlv_to_struct(&set, nullptr));
}

TEST_F(FieldTables, ArraysSayTheirSizes) {
    const std::string first = field(1, "x"), second = field(2, "");
    const std::string array = be32(4 + 9 + 8) + first + second + "behind it";
    const uint32_t want[] = {21, 9, 8, 0};
    for (uint32_t index = 0; index < 4; ++index)
        EXPECT_EQ(want[index], tlv_array_size_get(array.data(), index));
    EXPECT_EQ(0u, tlv_array_size_get((be32(4 + 9) + be32(1) + be32(2) + "x").data(), 1));
    EXPECT_EQ(0u, tlv_array_size_get(be32(3).data(), 1));
}

}  // namespace
