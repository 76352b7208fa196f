// What holds for every record handler, over a table of all of them: each operation on keys that exist and on
// keys that do not, the end of a walk, unknown operations, and each failing call of the store. What is
// special about a handler is in its own test.
#include <algorithm>

#include "tests/fakes/library_test.h"

namespace {

constexpr uint32_t kFailure = 0x40480011;
constexpr uint32_t kUnserved = UINT32_MAX;  // in place of a status: the handler does not know the operation

// Records are handled as bytes. Those of a handler are named by a letter: 'a' and 'z' are stored under its
// first and its last key, 'n' has the key of 'a' and another value, 'm' a key between the two.
struct Handler {
    const char* name;
    uint32_t (*call)(uint32_t operation, char* record);
    std::string (*record)(char which);
    std::string first_key, last_key;
    struct {
        size_t offset, size;        // the run of bytes that is the value
        std::vector<size_t> words;  // offsets of those that are stored in big-endian order
    } value;
    uint32_t get_none, delete_none, walk_end;
    // The first trace of a call, those of each operation, and the last. '*' stands for the status, '?' for
    // the operation, '%' for the identity in the record.
    const char *first_trace, *traces[4], *last_trace;
    void (*adjust)(uint32_t operation, uint32_t status, std::string& record);  // what a call always changes
    std::string replaced_key = {};        // deleted by SET before it stores
    const char* failure_trace = nullptr;  // once for each failure of the store
    bool whole_names = false;             // refuses a name without a terminator, else cuts it
};

template <auto config>
uint32_t by_code(uint32_t operation, char* record) {
    auto* info = reinterpret_cast<security_enable_info*>(record);
    return config(kHandle, operation, static_cast<int32_t>(info->code), &info->value);
}

std::string number(char which, uint32_t a, uint32_t m, uint32_t z) {
    return bytes_of(which == 'z' ? z : which == 'm' ? m : a);
}
std::string name(char which) { return padded(which == 'z' ? "zoe" : which == 'm' ? "mia" : "amy", 128); }

std::string user(char which) {  // the password is digits, which the cipher does not change
    return name(which) + bytes_of(3) + bytes_of(7) + padded(std::to_string(1000 + which), 128);
}
std::string level(char which) {
    return number(which, 2, 5, 9) + bytes_of(7) + padded({which}, 1024) + bytes_of(1) + bytes_of(2) +
           padded("s", 64) + bytes_of(3);
}
std::string list(char which) { return name(which) + bytes_of(1) + padded({which}, size_t{64} * 65); }
std::string key_line(char which) { return name(which) + std::string(2200, which); }
std::string key_file(char which) { return name(which) + std::string(8193, which); }
std::string delimiter(char which) { return {which}; }
std::string service(char which) { return number(which, 16, 13, 2) + std::string("val") + which; }
std::string port(char which) { return number(which, 21, 24, 30) + std::string("val") + which; }
std::string web_text(char which) { return number(which, 0, 0, 1000) + padded({which}, 2100) + bytes_of(0); }

void swap_word(std::string& record, size_t at) { std::reverse(&record[at], &record[at + 4]); }
bool reads(uint32_t operation) { return operation == GET_REQ || operation == GETNEXT_REQ; }

void nothing(uint32_t, uint32_t, std::string&) {}
void after_user(uint32_t operation, uint32_t status, std::string& record) {
    if (reads(operation) && status == 0) record.replace(132, 4, bytes_of(0));  // deciphered
}
void after_roles(uint32_t operation, uint32_t status, std::string& record) {
    if (operation == SET_REQ || (reads(operation) && status != 0)) swap_word(record, 128);
}
void after_locales(uint32_t operation, uint32_t, std::string& record) {
    if (operation == SET_REQ) swap_word(record, 128);
}
void after_banner(uint32_t operation, uint32_t, std::string& record) {
    if (operation == GETNEXT_REQ || (operation == GET_REQ && world().store.empty())) record = "#";
}
void after_service(uint32_t operation, uint32_t, std::string& record) {  // scp reads as 0
    if (operation == GET_REQ && !world().store.contains(number_key(1, 16))) record.replace(4, 4, bytes_of(0));
}
void after_port(uint32_t operation, uint32_t status, std::string& record) {
    if (operation == SET_REQ && status != 0) swap_word(record, 4);
}

constexpr uint32_t kNoKey = 0x40480003, kNotFound = 0x404a0014, kEnd = 0x404a001c;
constexpr char kStatus[] = "status for the operation:<[*]>";

// clang-format off
const Handler kHandlers[] = {
    {"users", by_record<kHandle, security_user_config>, user, name_key(5, "amy"), name_key(5, "zoe"),
     {128, 136, {128, 132}}, kNotFound, kNoKey, kEnd,
     "In security_user_config:",
     {"GET operation for user:%", "GETNEXT for user:%", "SET operation for user:%", "DELETE operation for user:%"},
     kStatus, after_user, {}, nullptr, true},
    {"privilege levels", by_record<kHandle, security_priv_info_config>, level, number_key(22, 2), number_key(22, 9),
     {4, 1104, {4, 1032, 1036, 1104}}, 0x404a0045, kNoKey, 0x404a0046,
     "In security_priv_info_config:",
     {"GET operation for priv_lvl:%", "GETNEXT for prvi-lvl:%", "SET operation for prvi_lvl:%",
      "DELETE operation for priv_lvl:%"},
     "status for the operation ?: <[*]>", nothing, {}, "):text of 40480011"},
    {"roles", by_record<kHandle, security_user_roles_config>, list, name_key(20, "amy"), name_key(20, "zoe"),
     {128, 69, {128}}, kNotFound, kNotFound, kEnd,
     "In security_user_roles_config:",
     {"GET for user:% roles", "GETNEXT for user:% roles",
      "SET for user:%, 1 roles\nsecurity_user_roles_config:role is n", "DELETE for user:% roles"},
     "status for the operation:<[*]>, desc text of *", after_roles},
    {"locales", by_record<kHandle, security_user_locales_config>, list, name_key(27, "amy"), name_key(27, "zoe"),
     {128, 69, {128}}, kNotFound, kNotFound, 0,
     nullptr,
     {"GET for user:% locales\nGET num_locales 1", "GETNEXT for user:% locales", "SET for user:% 1 locales",
      "DELETE for user:% locales"},
     nullptr, after_locales},
    {"keys", by_record<kHandle, security_user_ssh_key_config>, key_line, name_key(6, "amy"), name_key(6, "zoe"),
     {128, 2200, {}}, kNotFound, kNotFound, kEnd,
     nullptr,
     {"SSH key GET operation for user:%", "SSH key GETNEXT for user:%",
      "SSH Key SET operation for user:%\nDELETE operation for user:%\nstatus for the operation:<[*]>",
      "DELETE operation for user:%"},
     kStatus, nothing, name_key(21, "amy"), nullptr, true},
    {"key files", by_record<kHandle, security_user_ssh_key_new_config>, key_file, name_key(21, "amy"), name_key(21, "zoe"),
     {128, 8193, {}}, kNotFound, kNotFound, kEnd,
     nullptr,
     {"SSH key GET operation for user:%", "SSH key GETNEXT for user:%",
      "SSH Key SET operation for user:%\nDELETE operation for user:%\nSET operation for user:%",
      "DELETE operation for user:%"},
     kStatus, nothing, name_key(6, "amy"), nullptr, true},
    {"banner", by_record<kHandle, security_banner_info_config>, delimiter, be32(28), be32(28),
     {0, 1, {}}, 0, kNoKey, kNoKey,
     "In security_banner_info_config:",
     {"GET operation for banner-config.", "GETNEXT for banner config.",
      "SET operation for banner config, delimiter char:n.", "DELETE operation for banner config."},
     kStatus, after_banner},
    {"services", by_code<enable_info_config>, service, number_key(1, 16), number_key(1, 2),
     {4, 4, {4}}, 0, kUnserved, kUnserved,
     nullptr,
     {"GET_REQ for scp", nullptr, "SET_REQ for scp with value:1852596598", nullptr},
     "got back the return value of configuration operation:<[*]>", after_service},
    {"web texts", by_record<kHandle, security_nginx_ssh_key_config>, web_text, number_key(32, 0), number_key(33, 0),
     {4, 2100, {}}, kNoKey, kNoKey, kUnserved,
     nullptr,
     {"NGINX key GET operation for key/cert :%", nullptr,
      "NGINX Key SET operation for cert/key:%\nDELETE operation for cert/key:%\nSET operation for cert/key:%",
      "DELETE operation for (cert/key) %"},
     kStatus, nothing, number_key(32, 0)},
    {"ports", by_code<nginx_port_info_config>, port, number_key(31, 21), number_key(31, 30),
     {4, 4, {4}}, 0x404a0007, kNoKey, kUnserved,
     "nginx_port_info_config :: Entered function with value ploty\n",
     {"NGINX: GET_REQ for ploty", nullptr, "NGINX: SET_REQ for ploty with value:1986096238",
      "Nginx: DEL_REQ for http/https :352321536"},
     "NGINX: got back the return value of configuration operation:<[*]>", after_port},
};
// clang-format on

class Handlers : public LibraryTest {
 protected:
    // Both records, stored by the handler itself, and a key of the next table.
    void seed(const Handler& h) {
        SetUp();
        for (const char which : std::string("za")) {
            std::string record = h.record(which);
            h.call(SET_REQ, record.data());
        }
        std::string next_table = h.last_key;
        ++next_table[3];
        if (h.walk_end == kEnd || h.walk_end == 0x404a0046) world().store[next_table] = "of another table";
        EXPECT_TRUE(world().store.contains(h.first_key) && world().store.contains(h.last_key)) << h.name;
        if (!h.replaced_key.empty()) world().store.try_emplace(h.replaced_key, "replaced");
        world().calls.clear();
        world().traces.clear();
    }

    // Calls with one record and expects the other in its place.
    void expect(const Handler& h, const std::string& what, uint32_t operation, uint32_t status, char given,
                char want) {
        SCOPED_TRACE(std::string(h.name) + ": " + what);
        world().traces.clear();
        std::string record = h.record(given), wanted = h.record(want);
        EXPECT_EQ(status, h.call(operation, record.data()));
        h.adjust(operation, status, wanted);
        EXPECT_TRUE(wanted == record) << "the record differs";
        const auto filled = [&](const char* trace) {
            const bool named = h.first_key.size() == 132;
            const std::string identity = named                 ? h.record(given).c_str()
                                         : h.value.offset == 4 ? std::to_string(h.record(given)[0])
                                                               : "";
            char hex[16];
            snprintf(hex, sizeof hex, "%x", status);
            std::string text;
            for (const char* at = trace; *at != '\0'; ++at)
                text += *at == '*'   ? hex
                        : *at == '?' ? std::to_string(operation)
                        : *at == '%' ? identity
                                     : std::string(1, *at);
            return text;
        };
        const Texts& traces = world().traces;
        std::string all = "\n";
        for (const std::string& trace : traces) all += trace + "\n";
        EXPECT_EQ(h.first_trace ? h.first_trace : traces.front(), traces.front());
        EXPECT_EQ(h.last_trace ? filled(h.last_trace) : traces.back(), traces.back());
        if (given == 'z' || given == 'm' || (status != 0 && operation != GETNEXT_REQ)) return;
        const std::string own = "\n" + filled(h.traces[operation - 1]) + "\n";
        EXPECT_NE(all.npos, all.find(own)) << own << "is not in" << all;
    }
    // The value of a record as it is stored.
    static std::string value(const Handler& h, char which) {
        std::string bytes = h.record(which);
        for (const size_t word : h.value.words) swap_word(bytes, word);
        return bytes.substr(h.value.offset, h.value.size);
    }
};

TEST_F(Handlers, ReadWalkStoreAndDelete) {
    for (const Handler& h : kHandlers) {
        seed(h);
        auto store = world().store;
        expect(h, "get", GET_REQ, 0, 'n', 'a');
        if (h.first_key != h.last_key && h.walk_end != kUnserved) {
            expect(h, "walk on", GETNEXT_REQ, 0, 'n', 'z');
            expect(h, "walk from a key that is gone", GETNEXT_REQ, 0, 'm', h.walk_end == 0 ? 'm' : 'z');
        }
        if (h.walk_end != kUnserved) expect(h, "end of the walk", GETNEXT_REQ, h.walk_end, 'z', 'z');
        EXPECT_EQ(store, world().store) << h.name;

        expect(h, "set", SET_REQ, 0, 'n', 'n');
        expect(h, "get of another value", GET_REQ, 0, 'a', 'n');
        if (h.replaced_key != h.first_key) store.erase(h.replaced_key);
        store[h.first_key] = value(h, 'n');
        EXPECT_EQ(store, world().store) << h.name;
        if (h.delete_none != kUnserved) {
            expect(h, "delete", DEL_REQ, 0, 'a', 'a');
            store.erase(h.first_key);
            EXPECT_EQ(store, world().store) << h.name;
            expect(h, "delete of none", DEL_REQ, h.delete_none, 'a', 'a');
        }
        world().store.erase(h.first_key);
        expect(h, "get of none", GET_REQ, h.get_none, 'a', 'a');
    }
}

TEST_F(Handlers, StoreFailuresPassThrough) {
    const std::pair<std::string, uint32_t> cases[] = {
        {"pss2_fetch", GET_REQ},        {"pss2_move2key", GETNEXT_REQ}, {"pss2_move2location", GETNEXT_REQ},
        {"pss2_getvalue", GETNEXT_REQ}, {"pss2_store", SET_REQ},        {"pss2_delete", DEL_REQ},
        {"pss2_getkey", GETNEXT_REQ},   {"pss2_delete", SET_REQ},
    };
    for (const Handler& h : kHandlers)
        for (const auto& [call, operation] : cases) {
            if (operation == GETNEXT_REQ && (h.walk_end == kUnserved || h.first_key == h.last_key)) continue;
            if (operation == DEL_REQ && h.delete_none == kUnserved) continue;
            if (call == "pss2_delete" && operation == SET_REQ && h.replaced_key.empty()) continue;
            seed(h);
            auto store = world().store;
            world().answer = {{call, kFailure}};
            expect(h, call + " fails", operation, kFailure, 'n', 'n');
            if (call == "pss2_store") store.erase(h.replaced_key);
            EXPECT_EQ(store, world().store) << h.name << ": " << call;
            if (h.failure_trace == nullptr) continue;
            EXPECT_EQ(1, std::ranges::count_if(
                             world().traces,
                             [&](const std::string& text) { return text.ends_with(h.failure_trace); }))
                << call;
        }
}

// Only the first 127 characters of a name are used, or it is refused.
TEST_F(Handlers, NamesWithoutATerminator) {
    for (const Handler& h : kHandlers) {
        if (h.first_key.size() != 132) continue;
        SetUp();
        for (const uint32_t operation : {SET_REQ, GET_REQ, GETNEXT_REQ, DEL_REQ}) {
            std::string record = h.record('a').replace(0, 128, 128, 'n');
            const uint32_t status = h.call(operation, record.data());
            const uint32_t want = h.whole_names ? 0x404a0104 : operation == GETNEXT_REQ ? h.walk_end : 0;
            EXPECT_EQ(want, status) << h.name << operation;
            const std::string key = h.first_key.substr(0, 4) + padded(std::string(127, 'n'), 128);
            EXPECT_TRUE(h.whole_names || operation == DEL_REQ || world().store.contains(key)) << h.name;
        }
        EXPECT_EQ(h.whole_names, world().calls.empty()) << h.name;
    }
}

// Whatever is in the record.
TEST_F(Handlers, UnknownOperationsDoNothing) {
    for (const Handler& h : kHandlers)
        for (const uint32_t operation : {0, 5, 0xffff, int{GETNEXT_REQ}, int{DEL_REQ}}) {
            if (operation == GETNEXT_REQ && h.walk_end != kUnserved) continue;
            if (operation == DEL_REQ && h.delete_none != kUnserved) continue;
            seed(h);
            std::string record(h.record('a').size(), '\xaa');
            EXPECT_EQ(0u, h.call(operation, record.data())) << h.name;
            EXPECT_EQ(std::string(record.size(), '\xaa'), record) << h.name;
            EXPECT_TRUE(world().calls.empty()) << h.name;
        }
}

}  // namespace
