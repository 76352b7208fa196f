// Texts in the fixed fields of a record.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace quill {

// Whether a text ends inside its field.
template <size_t size>
bool terminated(const char (&field)[size]) {
    return memchr(field, '\0', size) != nullptr;
}

// Ends the text at the last byte of its field, if it did not end before.
template <size_t size>
void terminate(char (&field)[size]) {
    if (!terminated(field)) field[size - 1] = '\0';
}

// The text up to its terminator, cut where the field ends before it; zero behind it.
template <size_t size>
void set_text(char (&field)[size], const char* text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    std::fill(field + length, field + size, '\0');
}

// The same from a field that somebody else filled: nothing is read past it, and no remains of an older text
// come along.
template <size_t to_size, size_t from_size>
void copy_field(char (&to)[to_size], const char (&from)[from_size]) {
    const size_t length = strnlen(from, std::min(to_size - 1, from_size));
    memcpy(to, from, length);
    std::fill(to + length, to + to_size, '\0');
}

}  // namespace quill
