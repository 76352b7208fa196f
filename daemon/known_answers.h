// Known-answer tests: does the installed OpenSSL compute the results that the standards give?
#pragma once

#include <cstdint>
#include <span>

namespace quill {

struct KnownAnswer {
    uint32_t test;  // enum security_self_test
    bool (*passes)();
};

// All tests, ordered by number.
std::span<const KnownAnswer> known_answers();

}  // namespace quill
