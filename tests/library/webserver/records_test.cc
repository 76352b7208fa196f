#include <cstring>

#include "tests/fakes/library_test.h"

namespace {

using WebRecords = LibraryTest;

TEST_F(WebRecords, ATextEndsAtItsTerminator) {
    world().store[number_key(32, 0)] = padded("pem\n", 2100);
    nginx_cert_rec record{0, "old text", 1};
    record.text[9] = '~';
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
        {SET_REQ, 23, 0, 8443, "NGINX: SET_REQ for ploty https port with value:-81788928"},
        {SET_REQ, 22, 0, 8443, "NGINX: SET_REQ for ploty http port with value:-81788928"},
        {DEL_REQ, 23, 0, 8443, "Nginx: DEL_REQ for http/https :385875968"},
        {GET_REQ, 23, 0, 0, "NGINX: GET_REQ for ploty https port"},
    };
    for (const auto& c : cases) {
        world().traces.clear();
        uint32_t value = 8443;
        EXPECT_EQ(c.want, nginx_port_info_config(kHandle, c.operation, c.item, &value)) << c.trace;
        EXPECT_EQ(c.value, value) << c.trace;
        EXPECT_EQ(c.trace, world().traces.at(1));
    }
    EXPECT_EQ((std::map<std::string, std::string>{{number_key(30, 22), be32(8443)}}), world().store);
}

}  // namespace
