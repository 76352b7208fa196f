// The cryptographic self-tests: the service that runs them, the daemon's requests to it, and their results.
//
// Service and daemon communicate over the message transport, as two programs would: requests go to
// MTS_SAP_SELF_TEST, responses to MTS_SAP_SECURITY, in the format of quillsecurity/notify.h. Both are in this
// process, so no other program can send a response.
#pragma once

#include <cstdint>

namespace quill {

class Broadcast;

// Attaches the service and the receiver of its responses to the transport.
void serve_self_tests(Broadcast& broadcast);

// Runs the tests if the service fips is on, and logs the results. The daemon continues after a failed test:
// the administrator decides what to do.
void self_test_at_start(uint32_t store);

// Handler of security_self_test_results. GET_REQ reads the last results; SET_REQ runs the tests first, and
// returns SECURITY_ERR_MISSING_ARGUMENT if the request could not be sent. Any other operation does nothing
// and returns 0.
uint32_t self_test_results(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
