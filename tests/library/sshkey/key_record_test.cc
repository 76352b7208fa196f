#include <cstring>
#include <functional>

#include "tests/fakes/library_test.h"

namespace {

using Values = std::map<std::string, std::string>;
using SshKeyRecord = LibraryTest;

// The two handlers: a record is a user name and the bytes behind it.
struct Handler {
    uint32_t table, other_table, length;
    std::function<uint32_t(uint32_t operation, void* record)> config;
    bool traces_store;

    std::string record(const std::string& name, char fill) const {
        return name + std::string(128 - name.size(), '\0') + std::string(length, fill);
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

TEST_F(SshKeyRecord, SetLeavesOneKeyOfTheUser) {
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

TEST_F(SshKeyRecord, TracesAndNamesWithoutATerminator) {
    const std::pair<uint32_t, const char*> cases[] = {{GET_REQ, "SSH key GET operation for user:amy"},
                                                      {GETNEXT_REQ, "SSH key GETNEXT for user:amy"},
                                                      {DEL_REQ, "DELETE operation for user:amy"}};
    for (const Handler& h : kHandlers) {
        for (const auto& [operation, trace] : cases) {
            SetUp();
            std::string record = h.record("amy", 'r');
            h.config(operation, record.data());
            EXPECT_EQ(trace, world().traces.front());
        }
        for (const uint32_t operation : {GET_REQ, GETNEXT_REQ, SET_REQ, DEL_REQ}) {
            SetUp();
            std::string record = h.record(std::string(128, 'n'), 'r');
            EXPECT_EQ(0x404a0104u, h.config(operation, record.data()));
            EXPECT_TRUE(world().calls.empty());
        }
    }
}

}  // namespace
