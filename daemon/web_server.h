// Requests about the web server, between the dispatcher and the records: what would not serve is refused here
// and the old settings stay.
#pragma once

#include <cstdint>
#include <string>

#include "quillsecurity.h"

namespace quill {

// Adapters for daemon/routes.cc. A port has one home, whichever of two requests brings it.
uint32_t web_switch(uint32_t store, uint32_t operation, security_enable_info& info);
uint32_t web_port(uint32_t store, uint32_t operation, security_enable_info& info);
uint32_t web_ports(uint32_t store, uint32_t operation, void* record);
uint32_t web_pair(uint32_t store, uint32_t operation, void* record);

// What the web server is to do, by the store.
struct WebServer {
    bool on = false;
    uint32_t http_port = 0, https_port = 0;  // 0 for none
    std::string certificate, key;            // PEM; both or none
    uint32_t pair = SECURITY_OK;             // why there is none

    WebServer() = default;
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;
};

// The store's status. A pair that an earlier daemon, or a store without room, left half stored is stored
// first; where that fails again nothing is read, and what was put into effect stays so.
uint32_t read_web_server(uint32_t store, WebServer& web);

}  // namespace quill
