// Texts in the fixed-size fields of a record.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace quill {

// Returns true if the field holds a terminator.
template <size_t size>
bool terminated(const char (&field)[size]) {
    return memchr(field, '\0', size) != nullptr;
}

// Returns the text of a field, all of it if there is no terminator.
template <size_t size>
std::string field_text(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

// Puts a terminator into the last byte of a field that has none.
template <size_t size>
void terminate(char (&field)[size]) {
    if (!terminated(field)) field[size - 1] = '\0';
}

// Copies a terminated text into the field, cut to size - 1 bytes. The rest of the field is zero.
template <size_t size>
void set_text(char (&field)[size], const char* text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    std::fill(field + length, field + size, '\0');
}

// Copies the text of one field into another, cut to to_size - 1 bytes. The source needs no terminator and is
// not read past its end. The rest of `to` is zero: no bytes behind the source's terminator are copied.
template <size_t to_size, size_t from_size>
void copy_field(char (&to)[to_size], const char (&from)[from_size]) {
    const size_t length = strnlen(from, std::min(to_size - 1, from_size));
    memcpy(to, from, length);
    std::fill(to + length, to + to_size, '\0');
}

// Copies a text into a field in which a text of `size` bytes or more has no terminator. `text` is read up to
// its terminator or `size` bytes. The rest of the field is zero.
template <size_t size>
void set_unterminated_text(char (&field)[size], const char* text) {
    const size_t length = strnlen(text, size);
    memcpy(field, text, length);
    std::fill(field + length, field + size, '\0');
}

}  // namespace quill
