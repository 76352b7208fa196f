// quillsec selftest: the results of the daemon's cryptographic self-tests.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cli/command.h"
#include "cli/exchange.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {
struct Name {
    uint32_t test;
    const char* name;
};

#define NAME(constant, value, name) {constant, name},
constexpr Name kNames[] = {SECURITY_SELF_TEST_LIST(NAME)};
#undef NAME

Cell name_cell(uint32_t test) {
    const auto* found =
        std::find_if(std::begin(kNames), std::end(kNames), [=](const Name& n) { return n.test == test; });
    return found == std::end(kNames) ? Cell(test) : Cell(found->name);
}

Answer table_of(const security_self_test_results& results) {
    Table table{"selftests", {"test", "result"}, {}};
    bool all_passed = true;
    const size_t count = std::min<size_t>(results.num_entries, std::size(results.entries));
    for (size_t i = 0; i < count; ++i) {
        const bool passed = results.entries[i].passed == 1;
        all_passed = all_passed && passed;
        table.rows.push_back({name_cell(results.entries[i].test), passed ? "passed" : "failed"});
    }
    return {table, all_passed && results.outcome == 0 ? Exit::kOk : Exit::kFailed};
}

Answer show(const Arguments&) {
    security_self_test_results results{};
    require_success(status_of(cmi_post_lc_result(0, &results)), "self-tests", "read");
    return table_of(results);
}

Answer run(const Arguments&) {
    security_self_test_results results{};
    require_success(ask(SECURITY_RESULT_REQUEST, SET_REQ, &results, sizeof results), "self-tests", "run");
    return table_of(results);
}

std::string notes() {
    return "The tests compare results of OpenSSL with known answers. The daemon runs them when it starts while\n"
           "the service fips is on, and when an administrator requests it; until then there are no results.\n"
           "The exit code is 1 if a test failed.\n\n"
           "With --json: {\"selftests\": [{\"test\", \"result\"}, ...]}, a result is \"passed\" or "
           "\"failed\".";
}

constexpr Verb kVerbs[] = {
    {"show", "show the results of the last run (if no verb is given)", {}, show},
    {"run", "run them now and show the results", {}, run},
};
}  // namespace

const Noun kSelfTest{"selftest", "known-answer tests of the cryptography", notes, kVerbs, true};

}  // namespace quill::cli
