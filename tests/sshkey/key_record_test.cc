#include <cstring>
#include <functional>

#include "tests/fakes/library_test.h"

namespace {

using Values = std::map<std::string, std::string>;
using SshKeyRecord = LibraryTest;

// Both handlers, seen alike: a record is a name and the bytes behind it.
struct Handler {
    uint32_t table, other_table, length;
    std::function<uint32_t(uint32_t operation, void* record)> config;
    bool traces_store;

    std::string record(const std::string& name, char fill) const {
        return name + std::string(128 - name.size(), '\0') + std::string(length, fill);
    }
    Values two_keys() const {
        return {{name_key(table, "amy"), std::string(length, 'a')},
                {name_key(table, "zoe"), std::string(length, 'z')}};
    }
};

template <class Record>
auto calling(uint32_t (*config)(uint32_t, uint32_t, Record*)) {
    return [=](uint32_t operation, void* record) {
        return config(kHandle, operation, static_cast<Record*>(record));
    };
}

const Handler kHandlers[] = {{6, 21, 2200, calling(security_user_ssh_key_config), false},
                             {21, 6, 8193, calling(security_user_ssh_key_new_config), true}};

TEST_F(SshKeyRecord, ASetLeavesOneKeyOfTheUser) {
    for (const Handler& h : kHandlers) {
        for (const bool had_other : {true, false}) {
            SetUp();
            const Values kept = {{name_key(h.other_table, "bob"), "b"}, {name_key(20, "amy"), "roles"}};
            world().store = kept;
            if (had_other) world().store[name_key(h.other_table, "amy")] = "old";
            std::string record = h.record("amy", 'k');
            EXPECT_EQ(0u, h.config(SET_REQ, record.data()));
            auto want = kept;
            want[name_key(h.table, "amy")] = std::string(h.length, 'k');
            EXPECT_EQ(want, world().store);
            EXPECT_EQ((std::vector<std::string>{"pss2_delete", "pss2_store"}), world().calls);
            std::vector<std::string> traces = {"SSH Key SET operation for user:amy",
                                               "DELETE operation for user:amy", "SET operation for user:amy",
                                               "status for the operation:<[0]>"};
            if (!h.traces_store) traces.erase(traces.begin() + 2);
            EXPECT_EQ(traces, world().traces);
        }
    }
}

TEST_F(SshKeyRecord, AnswersByOperation) {
    const struct {
        const char* what;
        uint32_t operation;
        const char* user;
        uint32_t want;
        const char* found;  // user and fill; empty where the record stays
        const char* trace;
    } cases[] = {
        {"get", GET_REQ, "amy", 0, "amya", "SSH key GET operation for user:amy"},
        {"get of none", GET_REQ, "bob", 0x404a0014, "", "SSH key GET operation for user:bob"},
        {"walk from the start", GETNEXT_REQ, "", 0, "amya", "SSH key GETNEXT for user:"},
        {"walk on", GETNEXT_REQ, "amy", 0, "zoez", "SSH key GETNEXT for user:amy"},
        {"walk past one that went", GETNEXT_REQ, "bob", 0, "zoez", "SSH key GETNEXT for user:bob"},
        {"walk past the last", GETNEXT_REQ, "zoe", 0x404a001c, "", "SSH key GETNEXT for user:zoe"},
        {"delete", DEL_REQ, "zoe", 0, "", "DELETE operation for user:zoe"},
        {"delete of none", DEL_REQ, "bob", 0x404a0014, "", "DELETE operation for user:bob"},
        {"no operation", 0, "amy", 0, "", "status for the operation:<[0]>"},
        {"unknown operation", 5, "amy", 0, "", "status for the operation:<[0]>"},
        {"a name without an end", SET_REQ, nullptr, 0x404a0104, "", "status for the operation:<[404a0104]>"},
    };
    for (const Handler& h : kHandlers) {
        auto before = h.two_keys();
        before[name_key(h.other_table, "amy")] = before[name_key(h.other_table, "bob")] =
            "of the other table";
        before[name_key(h.table + 1, "amy")] = "of a neighbour";
        for (const auto& c : cases) {
            SetUp();
            world().store = before;
            std::string record = h.record(c.user ? c.user : std::string(128, 'n'), 'r');
            const std::string want = *c.found ? h.record(std::string(c.found, 3), c.found[3]) : record;
            EXPECT_EQ(c.want, h.config(c.operation, record.data())) << c.what;
            EXPECT_EQ(want, record) << c.what;
            auto after = before;
            if (c.operation == DEL_REQ) after.erase(name_key(h.table, c.user));
            EXPECT_EQ(after, world().store) << c.what;
            EXPECT_EQ(c.trace, world().traces.front()) << c.what;
        }
    }
}

// Whichever call fails, its status comes back and nothing changes: above all, a key of the other format that
// cannot be deleted keeps the new one out.
TEST_F(SshKeyRecord, StoreFailuresPassThrough) {
    const std::pair<const char*, uint32_t> cases[] = {{"pss2_fetch", GET_REQ},
                                                      {"pss2_getvalue", GETNEXT_REQ},
                                                      {"pss2_store", SET_REQ},
                                                      {"pss2_delete", SET_REQ},
                                                      {"pss2_delete", DEL_REQ}};
    for (const Handler& h : kHandlers) {
        for (const auto& [call, operation] : cases) {
            SetUp();
            world().store = h.two_keys();
            world().answer = {{call, 0x40480011}};
            std::string record = h.record("amy", 'r');
            EXPECT_EQ(0x40480011u, h.config(operation, record.data())) << call;
            EXPECT_EQ(h.record("amy", 'r'), record) << call;
            EXPECT_EQ(h.two_keys(), world().store) << call;
            EXPECT_EQ("status for the operation:<[40480011]>", world().traces.back());
        }
    }
}

}  // namespace
