// Names of accounts and files in virtual device contexts. All contexts share one set of account files, so a
// name has two forms:
//   plain name   what the users of a context call it: "amy"
//   stored name  what the account files call it: in context 1 the plain name, in another context the
//                qualified name, "amy#02#": with the suffix "#NN#", the context's number in two digits
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace quill {

constexpr int32_t kDefaultContext = 1;
constexpr int32_t kLargestContext = 99;    // the suffix has two digits
constexpr int32_t kNoContext = INT32_MIN;  // two characters never spell this number
constexpr char kContextMark = '#';         // the suffix starts and ends with it
constexpr size_t kContextSuffix = sizeof "#NN#" - 1;

// Writes the stored form of `name` in the given context to `stored`, cut at the end of the buffer and always
// terminated. Returns the length of the whole stored name, which is `size` or more if it was cut. In the
// default context `name` may be `stored` itself, and the rest of the buffer is zero.
template <size_t size>
size_t make_stored_name(char (&stored)[size], const char* name, int32_t context) {
    if (context != kDefaultContext)
        return static_cast<size_t>(
            snprintf(stored, size, "%s%c%02d%c", name, kContextMark, context, kContextMark));
    const size_t length = strlen(name);
    const size_t copied = length < size ? length : size - 1;
    memmove(stored, name, copied);
    memset(stored + copied, '\0', size - copied);
    return length;
}

// Returns the context that a stored name belongs to: kDefaultContext for a name that does not end in '#',
// else the number in the two characters before the last one, and kNoContext if they hold no number. The first
// '#' of the suffix is not required.
inline int32_t context_of(const char* name) {
    const size_t length = strlen(name);
    if (length == 0 || name[length - 1] != kContextMark) return kDefaultContext;
    int context = 0;
    // NOLINTNEXTLINE(cert-err34-c): two characters cannot overflow
    if (length < 3 || sscanf(name + length - 3, "%2d", &context) != 1) return kNoContext;
    return context;
}

// Returns true if a stored name has exactly the form "NAME#NN#", with two digits and a NAME that is
// not empty.
inline bool has_context_suffix(const char* name) {
    const size_t length = strlen(name);
    if (length <= kContextSuffix) return false;
    const char* suffix = name + length - kContextSuffix;
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    return suffix[0] == kContextMark && is_digit(suffix[1]) && is_digit(suffix[2]) &&
           suffix[3] == kContextMark;
}

// Removes the last four characters of a stored name in place, whatever they are. Leaves a shorter name alone.
inline void cut_context_suffix(char* name) {
    const size_t length = strlen(name);
    if (length >= kContextSuffix) name[length - kContextSuffix] = '\0';
}

}  // namespace quill
