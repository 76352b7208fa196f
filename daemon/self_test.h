// The cryptographic self-tests: the service that runs them, the daemon's question to it, and what became of
// it.
//
// Service and daemon meet on the message transport alone, as they would were they two programs: the question
// goes to MTS_SAP_SELF_TEST, the answer to MTS_SAP_SECURITY, in the form that quillsecurity/notify.h tells.
// One process holds both, so an answer cannot come from anybody else.
#pragma once

#include <cstdint>

namespace quill {

class Broadcast;

// Puts the service, and the place to which its answers come, on the transport.
void serve_self_tests(Broadcast& broadcast);

// Asks for the tests if the service fips is on. They are done when this returns, and the log says how they
// ended. The daemon serves on when one failed: what to do about it is for the administrator to say.
void self_test_at_start(uint32_t store);

// Handler of the record security_self_test_results. GET_REQ fills in the results, SET_REQ has the tests run
// first; any other operation does nothing and answers 0. SECURITY_ERR_MISSING_ARGUMENT when the tests could
// not be asked for.
uint32_t self_test_results(uint32_t store, uint32_t operation, void* record);

}  // namespace quill
