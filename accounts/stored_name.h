// Names as the account files store them: those of virtual device context 1 as they are, all others followed
// by
// "#NN#", the context's number.
#pragma once

#include <cstddef>

namespace quill {

constexpr int kDefaultContext = 1;
constexpr int kLargestContext = 99;  // a number of three digits would not fit its place

// Takes the suffix off a stored name, in place. A name too short to have one keeps what it has.
void cut_suffix(char* name);

}  // namespace quill
