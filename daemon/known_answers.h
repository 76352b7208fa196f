// Known-answer tests: whether OpenSSL, as it is on this machine, computes what the standards say it must.
#pragma once

#include <cstdint>
#include <span>

namespace quill {

struct KnownAnswer {
    uint32_t test;  // enum security_self_test
    bool (*holds)();
};

// All there are, in the order of their numbers.
std::span<const KnownAnswer> known_answers();

}  // namespace quill
