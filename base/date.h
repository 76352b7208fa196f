// Dates as text: "year-month-day".
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>

namespace quill {

struct Date {
    int year, month, day;
};

// Reads a text like "2031-2-28": three decimal numbers of at most 5, 3 and 3 characters, each with an
// optional sign and leading blanks. Returns nothing if the text is anything else or longer. Whether the
// calendar has such a day is for the caller to check.
inline std::optional<Date> parse_date(const char* text) {
    Date date{};
    int length = 0;
    // NOLINTNEXTLINE(cert-err34-c): numbers of so few digits fit into an int
    const int count = sscanf(text, "%5d-%3d-%3d%n", &date.year, &date.month, &date.day, &length);
    if (count != 3 || text[length] != '\0') return std::nullopt;
    return date;
}

}  // namespace quill
