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
    uint32_t get_none, delete_none, walk_end;
    const char* trace;  // the last one of each call; '*' stands for the status, '?' for the operation
    void (*adjust)(uint32_t operation, uint32_t status, std::string& record);  // what a call always changes
    std::string replaced_key = {};        // deleted by SET before it stores
    const char* failure_trace = nullptr;  // once for each failure of the store
};

template <auto config>
uint32_t by_record(uint32_t operation, char* record) {
    return [&]<class Record>(uint32_t (*)(uint32_t, uint32_t, Record*)) {
        return config(kHandle, operation, reinterpret_cast<Record*>(record));
    }(config);
}

template <auto config>
uint32_t by_code(uint32_t operation, char* record) {
    auto* info = reinterpret_cast<security_enable_info*>(record);
    return config(kHandle, operation, static_cast<int32_t>(info->code), &info->value);
}

std::string field(std::string text, size_t size) {
    text.resize(size);
    return text;
}
std::string word(uint32_t value) { return {reinterpret_cast<const char*>(&value), sizeof value}; }
std::string number(char which, uint32_t a, uint32_t m, uint32_t z) {
    return word(which == 'z' ? z : which == 'm' ? m : a);
}
std::string name(char which) { return field(which == 'z' ? "zoe" : which == 'm' ? "mia" : "amy", 128); }

std::string user(char which) {  // the password is digits, which the cipher does not change
    return name(which) + word(3) + word(7) + field(std::to_string(1000 + which), 128);
}
std::string level(char which) {
    return number(which, 2, 5, 9) + word(7) + field({which}, 1024) + word(1) + word(2) + field("s", 64) +
           word(3);
}
std::string list(char which) { return name(which) + word(1) + field({which}, size_t{64} * 65); }
std::string key_line(char which) { return name(which) + std::string(2200, which); }
std::string key_file(char which) { return name(which) + std::string(8193, which); }
std::string delimiter(char which) { return {which}; }
std::string service(char which) { return number(which, 16, 13, 2) + std::string("val") + which; }
std::string port(char which) { return number(which, 21, 24, 30) + std::string("val") + which; }
std::string web_text(char which) { return number(which, 0, 0, 1) + field({which}, 2100) + word(0); }

void swap_word(std::string& record, size_t at) { std::reverse(&record[at], &record[at + 4]); }
bool reads(uint32_t operation) { return operation == GET_REQ || operation == GETNEXT_REQ; }

void nothing(uint32_t, uint32_t, std::string&) {}
void after_user(uint32_t operation, uint32_t status, std::string& record) {
    if (reads(operation) && status == 0) record.replace(132, 4, word(0));  // deciphered
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
    if (operation == GET_REQ && !world().store.contains(number_key(1, 16))) record.replace(4, 4, word(0));
}
void after_port(uint32_t operation, uint32_t status, std::string& record) {
    if (operation == SET_REQ && status != 0) swap_word(record, 4);
}

constexpr uint32_t kNoKey = 0x40480003, kNotFound = 0x404a0014, kEnd = 0x404a001c;
constexpr char kStatus[] = "status for the operation:<[*]>";
constexpr char kReturned[] = "got back the return value of configuration operation:<[*]>";

// clang-format off
const Handler kHandlers[] = {
    {"users", by_record<security_user_config>, user, name_key(5, "amy"), name_key(5, "zoe"),
     kNotFound, kNoKey, kEnd, kStatus, after_user},
    {"privilege levels", by_record<security_priv_info_config>, level, number_key(22, 2), number_key(22, 9),
     0x404a0045, kNoKey, 0x404a0046, "status for the operation ?: <[*]>", nothing, {}, "):text of 40480011"},
    {"roles", by_record<security_user_roles_config>, list, name_key(20, "amy"), name_key(20, "zoe"),
     kNotFound, kNotFound, kEnd, "status for the operation:<[*]>, desc text of *", after_roles},
    {"locales", by_record<security_user_locales_config>, list, name_key(27, "amy"), name_key(27, "zoe"),
     kNotFound, kNotFound, 0, nullptr, after_locales},
    {"keys", by_record<security_user_ssh_key_config>, key_line, name_key(6, "amy"), name_key(6, "zoe"),
     kNotFound, kNotFound, kEnd, kStatus, nothing, name_key(21, "amy")},
    {"key files", by_record<security_user_ssh_key_new_config>, key_file, name_key(21, "amy"),
     name_key(21, "zoe"), kNotFound, kNotFound, kEnd, kStatus, nothing, name_key(6, "amy")},
    {"banner", by_record<security_banner_info_config>, delimiter, be32(28), be32(28),
     0, kNoKey, kNoKey, kStatus, after_banner},
    {"services", by_code<enable_info_config>, service, number_key(1, 16), number_key(1, 2),
     0, kUnserved, kUnserved, kReturned, after_service},
    {"web texts", by_record<security_nginx_ssh_key_config>, web_text, number_key(32, 0), number_key(33, 0),
     kNoKey, kNoKey, kUnserved, kStatus, nothing, number_key(32, 0)},
    {"ports", by_code<nginx_port_info_config>, port, number_key(31, 21), number_key(31, 30),
     0x404a0007, kNoKey, kUnserved, "NGINX: got back the return value of configuration operation:<[*]>",
     after_port},
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
        std::string record = h.record(given), wanted = h.record(want);
        EXPECT_EQ(status, h.call(operation, record.data()));
        h.adjust(operation, status, wanted);
        EXPECT_TRUE(wanted == record) << "the record differs";
        if (h.trace == nullptr) return;
        std::string trace;
        char hex[16];
        snprintf(hex, sizeof hex, "%x", status);
        for (const char* at = h.trace; *at != '\0'; ++at)
            trace += *at == '*' ? hex : *at == '?' ? std::to_string(operation) : std::string(1, *at);
        EXPECT_EQ(trace, world().traces.back());
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
        store[h.first_key] = world().store[h.first_key];
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
