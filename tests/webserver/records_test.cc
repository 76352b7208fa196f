#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using WebRecords = LibraryTest;
using Texts = std::vector<std::string>;

std::string field(std::string text) {
    text.resize(2100);
    return text;
}

nginx_cert_rec cert(uint32_t item, const std::string& text) {
    nginx_cert_rec made{item, {}, 1};
    memset(made.text, '~', sizeof made.text);
    memcpy(made.text, text.c_str(), text.size() + 1);
    return made;
}

TEST_F(WebRecords, EachItemHasItsTable) {
    const std::string longest(2099, 'p');
    for (const auto& [item, table] : {std::pair{0u, 32u}, {1u, 33u}, {1000u, 33u}, {0x20000000u, 33u}}) {
        world() = World();
        auto record = cert(item, longest);
        EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, SET_REQ, &record));
        EXPECT_EQ((std::map<std::string, std::string>{{number_key(table, 0), field(longest)}}),
                  world().store);
        EXPECT_EQ((Texts{"pss2_delete", "pss2_store"}), world().calls);
        const std::string number = std::to_string(item);
        EXPECT_EQ((Texts{"NGINX Key SET operation for cert/key:" + number,
                         "DELETE operation for cert/key:" + number, "SET operation for cert/key:" + number,
                         "status for the operation:<[0]>"}),
                  world().traces);
        record = cert(item, "");
        EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, GET_REQ, &record));
        EXPECT_EQ(longest, record.text);
        EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, DEL_REQ, &record));
        EXPECT_TRUE(world().store.empty());
    }
}

TEST_F(WebRecords, ATextEndsAtItsTerminator) {
    world().store[number_key(32, 0)] = field("pem\n");
    auto record = cert(0, "old text");
    EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, GET_REQ, &record));
    EXPECT_EQ(0, memcmp(record.text, "pem\n\0ext\0~", 10));  // what stood behind it stays
    world().store[number_key(32, 0)] = std::string(2100, 'x');
    EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, GET_REQ, &record));
    EXPECT_EQ(std::string(2099, 'x'), record.text);
}

TEST_F(WebRecords, StatusesAreTheStores) {
    const struct {
        const char* failing;
        uint32_t operation, want;
        size_t left;
    } cases[] = {
        {nullptr, GET_REQ, 0x40480003, 0},
        {nullptr, DEL_REQ, 0x40480003, 0},
        {nullptr, GETNEXT_REQ, 0, 0},
        {"pss2_fetch", GET_REQ, 0x40480011, 1},
        {"pss2_delete", DEL_REQ, 0x40480011, 1},
        {"pss2_delete", SET_REQ, 0x40480011, 1},
        {"pss2_store", SET_REQ, 0x40480011, 0},
    };
    for (const auto& c : cases) {
        world() = World();
        if (c.failing != nullptr) {
            world().store[number_key(33, 0)] = field("old");
            world().answer = {{c.failing, 0x40480011}};
        }
        auto record = cert(1, "new");
        EXPECT_EQ(c.want, security_nginx_ssh_key_config(kHandle, c.operation, &record)) << c.operation;
        EXPECT_STREQ("new", record.text) << c.operation;
        EXPECT_EQ(c.left, world().store.size()) << c.operation;
    }
}

// One after the other, on one store; 8443 goes in.
TEST_F(WebRecords, Ports) {
    const struct {
        int32_t operation, item;
        uint32_t want, value;
        const char* trace;
        const char* failing;
    } cases[] = {
        {GET_REQ, 22, 0, 0, "NGINX: GET_REQ for ploty http port", nullptr},
        {GET_REQ, 21, 0x404a0007, 8443, "NGINX: GET_REQ for ploty", nullptr},
        {GET_REQ, 24, 0x404a0007, 8443, "NGINX: GET_REQ for (null)", nullptr},
        {DEL_REQ, 22, 0x40480003, 8443, "Nginx: DEL_REQ for http/https :369098752", nullptr},
        {SET_REQ, 23, 0, 8443, "NGINX: SET_REQ for ploty https port with value:-81788928", nullptr},
        {SET_REQ, 22, 0, 8443, "NGINX: SET_REQ for ploty http port with value:-81788928", nullptr},
        {GETNEXT_REQ, 23, 0, 8443, nullptr, nullptr},
        {GET_REQ, 23, 0, 8443, "NGINX: GET_REQ for ploty https port", nullptr},
        {DEL_REQ, 23, 0, 8443, "Nginx: DEL_REQ for http/https :385875968", nullptr},
        {SET_REQ, 21, 0, 8443, "NGINX: SET_REQ for ploty with value:-81788928", nullptr},
        {GET_REQ, 23, 0, 0, "NGINX: GET_REQ for ploty https port", nullptr},
        // A failed store leaves the word turned.
        {SET_REQ, 22, 0x11, 0xfb200000, "NGINX: SET_REQ for ploty http port with value:-81788928",
         "pss2_store"},
        {GET_REQ, 22, 0x11, 8443, "NGINX: GET_REQ for ploty http port", "pss2_fetch"},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        if (c.failing != nullptr) world().answer = {{c.failing, 0x11}};
        uint32_t value = 8443;
        EXPECT_EQ(c.want, nginx_port_info_config(kHandle, c.operation, c.item, &value)) << c.trace;
        EXPECT_EQ(c.value, value) << c.trace;
        const char* name = enable_info_to_str(c.item);
        ASSERT_LE(2u, world().traces.size());
        EXPECT_EQ(std::string("nginx_port_info_config :: Entered function with value ") +
                      (name ? name : "(null)") + "\n",
                  world().traces[0]);
        if (c.trace != nullptr) {
            EXPECT_EQ(c.trace, world().traces[1]);
        }
    }
    EXPECT_EQ("NGINX: got back the return value of configuration operation:<[11]>", world().traces.back());
    const std::string stored("\x00\x00\x20\xfb", 4);
    EXPECT_EQ(
        (std::map<std::string, std::string>{{number_key(30, 22), stored}, {number_key(31, 21), stored}}),
        world().store);
}

}  // namespace
