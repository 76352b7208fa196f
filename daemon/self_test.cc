#include "daemon/self_test.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/block.h"
#include "base/byte_order.h"
#include "daemon/known_answers.h"
#include "platform/mts/broadcast.h"
#include "quillplatform.h"
#include "quillsecurity.h"

namespace quill {
namespace {

// ---- The service.

constexpr uint8_t kRunTests = 1;

struct RequestHeader {
    uint8_t value;
    uint8_t zero;
    uint16_t count;
};

struct ResponseHeader {
    uint8_t value;
    uint8_t zero[3];
    uint32_t word;
};

// An element of the response's array; test and length are big-endian.
struct Element {
    uint32_t test;
    uint32_t length;
    uint8_t passed;
} __attribute__((packed));
static_assert(sizeof(Element) == 9);

std::vector<uint32_t> requested(const void* message) {
    const auto* payload = static_cast<const unsigned char*>(mts_payload_get(message));
    const size_t size = mts_payload_size(message);
    RequestHeader header{};
    if (size < sizeof header) return {};
    memcpy(&header, payload, sizeof header);
    if (header.value != kRunTests || size != sizeof header + header.count * sizeof(uint32_t)) return {};
    std::vector<uint32_t> tests(header.count);
    memcpy(tests.data(), payload + sizeof header, header.count * sizeof(uint32_t));
    return tests;
}

template <class Part>
void append(std::string& bytes, const Part& part) {
    bytes.append(reinterpret_cast<const char*>(&part), sizeof part);
}

// Runs the requested tests and sends a response. A malformed request gets none.
void respond(uint32_t handle, const void* message) {
    const std::vector<uint32_t> tests = requested(message);
    if (mts_opc_get(message) != SECURITY_MTS_SELF_TEST || tests.empty()) return;
    std::string elements;
    uint32_t failed = 0;
    for (const KnownAnswer& answer : known_answers()) {
        if (std::find(tests.begin(), tests.end(), answer.test) == tests.end()) continue;
        const bool passed = answer.passes();
        if (!passed) ++failed;
        append(elements,
               Element{big_endian(answer.test), big_endian(1), static_cast<uint8_t>(passed ? 1 : 0)});
    }
    std::string response;
    append(response, ResponseHeader{static_cast<uint8_t>(failed != 0 ? 1 : 0), {}, failed});
    append(response, big_endian(static_cast<uint32_t>(sizeof(uint32_t) + elements.size())));
    response += elements;
    mts_send(handle, MTS_THIS_NODE, MTS_SAP_SECURITY, SECURITY_MTS_SELF_TEST, response.data(),
             static_cast<uint32_t>(response.size()), 0, 0, 0);
}

// ---- The daemon, which requests the tests.

uint32_t mts_handle = 0;
security_self_test_results results{};

const char* name_of(uint32_t test) {
    switch (test) {
#define NAME(constant, value, name) \
    case constant:                  \
        return name;
        SECURITY_SELF_TEST_LIST(NAME)
#undef NAME
    }
    return "unknown";
}

// Stores the elements of a complete array, as many as the record holds.
void take_elements(const unsigned char* array) {
    size_t offset = sizeof(uint32_t);
    for (uint32_t index = 1; index <= std::size(results.entries); ++index) {
        const uint32_t size = tlv_array_size_get(array, index);
        if (size == 0) return;
        Element element;
        if (size == sizeof element) {
            memcpy(&element, array + offset, sizeof element);
            const uint32_t test = big_endian(element.test);
            results.entries[results.num_entries++] = {test, element.passed};
            if (element.passed != 1) syslog(LOG_CRIT, "self-test %s failed", name_of(test));
        }
        offset += size;
    }
}

void take_response(const void* message) {
    uint8_t value = 0;
    uint32_t word = 0;
    uint16_t size = 0;
    void* array = nullptr;
    if (securityd_bootup_fips_post_test_parse_response(message, &value, &word, &size, &array) !=
        SECURITY_OK) {
        syslog(LOG_ERR, "the response of the self-test service cannot be read");
        return;
    }
    const Block<void> owned(array);
    results = {};
    results.outcome = value;
    results.failed = word;
    results.run_at = static_cast<uint32_t>(time(nullptr));
    if (size >= sizeof(uint32_t)) take_elements(static_cast<const unsigned char*>(array));
    syslog(value == 0 ? LOG_INFO : LOG_CRIT, "%u self-tests run, %u failed", results.num_entries, word);
}

uint32_t request_tests() {
    std::vector<uint32_t> tests;
    for (const KnownAnswer& answer : known_answers()) tests.push_back(answer.test);
    return securityd_bootup_fips_post_test_send_request(mts_handle, kRunTests,
                                                        static_cast<uint16_t>(tests.size()), tests.data());
}

}  // namespace

void serve_self_tests(Broadcast& broadcast) {
    mts_handle = broadcast.handle();
    broadcast.serve(MTS_SAP_SELF_TEST, [](const void* message) { respond(mts_handle, message); });
    broadcast.serve(MTS_SAP_SECURITY, take_response);
}

void self_test_at_start(uint32_t store) {
    uint32_t fips = 0;
    const uint32_t status = enable_info_config(store, GET_REQ, SECURITY_SERVICE_FIPS, &fips);
    if (status != SECURITY_OK || fips == 0) return;
    if (request_tests() != SECURITY_OK) syslog(LOG_CRIT, "the self-tests could not be requested");
}

uint32_t self_test_results(uint32_t, uint32_t operation, void* record) {
    if (operation != GET_REQ && operation != SET_REQ) return SECURITY_OK;
    const uint32_t status = operation == SET_REQ ? request_tests() : SECURITY_OK;
    if (status == SECURITY_OK) memcpy(record, &results, sizeof results);
    return status;
}

}  // namespace quill
