// The daemon's routes over a real store, and records of requests in wire order.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "daemon/dispatch.h"
#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"

constexpr quill::Peer kRoot{true, true, 0, 321}, kOther{true, false, 1000, 321}, kUnknown{};

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

inline std::string service(uint32_t code, uint32_t value) { return word(code) + word(value); }
inline std::string in_field(const std::string& text, size_t size) {
    return text + std::string(size - text.size(), '\0');
}
inline std::string web(uint32_t http, uint32_t https, uint32_t on) {
    return word(http) + word(https) + word(on);
}
inline std::string web_text(uint32_t item, const std::string& text, uint32_t enable = 0) {
    return bytes_of(item) + in_field(text, 2100) + bytes_of(enable);
}

class RoutesTest : public testing::Test {
 protected:
    RoutesTest() { EXPECT_EQ(0u, security_pss_create(&store, "security", 0, 0)); }
    ~RoutesTest() override { pss2_close(store); }

    // The reply's record is in `bytes`.
    quill::Answer dispatch(uint32_t type, uint32_t operation, const std::string& record,
                           const quill::Peer& peer = kRoot, const char* name = "ann") {
        record.copy(reinterpret_cast<char*>(bytes), sizeof bytes);
        quill::Request request{type, operation, 7, name, bytes, static_cast<uint32_t>(record.size())};
        return quill::dispatch(routes, store, peer, state, request);
    }
    uint32_t ask(uint32_t type, uint32_t operation, const std::string& record,
                 const quill::Peer& peer = kRoot) {
        return dispatch(type, operation, record, peer).status;
    }

    std::string returned(size_t offset, size_t size) const {
        return {reinterpret_cast<const char*>(bytes) + offset, size};
    }

    Box box;
    uint32_t store = 0;
    std::span<const quill::Route> routes = quill::routes();
    quill::ConnectionState state;
    alignas(16) unsigned char bytes[SECURITY_CMI_MAX_RECORD];
};
