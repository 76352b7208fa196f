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
    EXPECT_EQ(0, memcmp(record.text, "pem\n\0ext\0~", 10));  // bytes behind it are unchanged
    world().store[number_key(32, 0)] = std::string(2100, 'x');
    EXPECT_EQ(0u, security_nginx_ssh_key_config(kHandle, GET_REQ, &record));
    EXPECT_EQ(std::string(2099, 'x'), record.text);
}

// In this order, on one store; the value before each call is 8443.
TEST_F(WebRecords, Ports) {
    const struct {
        int32_t operation, item;
        uint32_t want, value;
        const char* trace;
    } cases[] = {
        {GET_REQ, 22, 0, 0, "NGINX: GET_REQ for ploty http port"},
        {GET_REQ, 24, 0x404a0007, 8443, "NGINX: GET_REQ for (null)"},
        {DEL_REQ, 22, 0x40480003, 8443, "Nginx: DEL_REQ for http/https :369098752"},
        {SET_REQ, 23, 0, 8443, "NGINX: SET_REQ for ploty https port with value:-81788928"},
        {SET_REQ, 22, 0, 8443, "NGINX: SET_REQ for ploty http port with value:-81788928"},
        {GET_REQ, 23, 0, 8443, "NGINX: GET_REQ for ploty https port"},
        {DEL_REQ, 23, 0, 8443, "Nginx: DEL_REQ for http/https :385875968"},
        {SET_REQ, 21, 0, 8443, "NGINX: SET_REQ for ploty with value:-81788928"},
        {GET_REQ, 23, 0, 0, "NGINX: GET_REQ for ploty https port"},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        uint32_t value = 8443;
        EXPECT_EQ(c.want, nginx_port_info_config(kHandle, c.operation, c.item, &value)) << c.trace;
        EXPECT_EQ(c.value, value) << c.trace;
        const char* name = enable_info_to_str(c.item);
        ASSERT_LE(2u, world().traces.size());
        EXPECT_EQ(std::string("nginx_port_info_config :: Entered function with value ") +
                      (name ? name : "(null)") + "\n",
                  world().traces[0]);
        EXPECT_EQ(c.trace, world().traces[1]);
    }
    const std::string stored("\x00\x00\x20\xfb", 4);
    EXPECT_EQ(
        (std::map<std::string, std::string>{{number_key(30, 22), stored}, {number_key(31, 21), stored}}),
        world().store);
}

}  // namespace
