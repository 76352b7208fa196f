// Requests about the web server: refuses settings that would not work, so that the old ones stay, and keeps
// the certificate and the key a pair.
#pragma once

#include <cstdint>
#include <string>

#include "quillsecurity.h"

namespace quill {

// Handlers for daemon/routes.cc. The ports and the switch are stored once, whichever of two request types
// sets them. The words of web_ports() are big-endian, those of the others in host order.
uint32_t web_switch(uint32_t store, uint32_t operation, security_enable_info& info);
uint32_t web_port(uint32_t store, uint32_t operation, security_enable_info& info);
uint32_t web_ports(uint32_t store, uint32_t operation, void* record);
uint32_t web_pair(uint32_t store, uint32_t operation, void* record);

// The stored settings of the web server. The key is wiped by the destructor.
struct WebServer {
    bool on = false;
    uint32_t http_port = 0, https_port = 0;  // 0 for none
    std::string certificate, key;            // PEM; both or none
    uint32_t pair = SECURITY_OK;             // why there are none

    WebServer() = default;
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;
};

// Reads the settings. A pair whose storing was interrupted, by the end of a daemon or a full disk, is stored
// first. Returns 0 or the failure of the store; then `web` is incomplete and not to be put into effect.
uint32_t read_web_server(uint32_t store, WebServer& web);

}  // namespace quill
