// The output of a command, as text and as JSON.
//
// A verb returns a table, a remark or a stream; only this file knows how they are printed.
//
// Text: aligned columns under a line of headings, plain ASCII around the values, the same on a terminal and
// in a file. A failure is one line on standard error: tool, object, what is wrong, remedy.
//
// With --json, standard output is exactly one document and standard error stays empty, unless standard output
// cannot be written:
//   a table        {"services": [{"name": "ssh", "value": "on"}, ...]}
//                  one member, named for what is listed, with one object per row; its members are the
//                  columns. A value is a string or a number, as in the text, and null or a boolean where the
//                  text has words for that. One row is a list of one.
//   a failure      {"error": {"tool": "quillsec", "object": "service 'ssh'", "text": "...", "remedy": "...",
//                             "status": {"name": "SECURITY_ERR_NOT_PERMITTED", "hex": "0x404a0106"},
//                             "exit_code": 5}}
//                  status is null if no request was made; its name is null for an unknown status, and that
//                  of errno if the request was not delivered.
//   a remark       {"verified": false} for yes or no, {"deleted": "amy"} after a deletion
//   --version      {"version": "1.0.0"}
//   --help         {"help": "..."}
// A notice is one more line of the text and one more member of the document: "notice".
// A stream is one document per line: {"number": 1, "change": "added", ...}
// Bytes that are not UTF-8 are printed as U+FFFD; control characters and invisible characters as \uXXXX.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cli/failure.h"

namespace quill::cli {

using Json = nlohmann::ordered_json;

// A value as JSON and as text.
struct Cell {
    Cell(const char* word) : value(word), text(word) {}
    Cell(const std::string& word) : value(word), text(word) {}
    Cell(uint32_t number) : value(number), text(std::to_string(number)) {}
    Cell(Json json, std::string words) : value(std::move(json)), text(std::move(words)) {}

    Json value;
    std::string text;
};

struct Table {
    std::string subject;               // what is listed: "services"
    std::vector<std::string> columns;  // in lower case
    std::vector<std::vector<Cell>> rows;
};

// Output without rows: a yes or no, --help, --version.
struct Remark {
    std::string subject;
    Cell content;
    Json details = nullptr;  // an object with further members of the document
};

// A table whose rows are printed as they arrive.
struct Stream {
    struct Column {
        std::string name;
        size_t width;  // of the text; a wider value moves the rest of its line
    };
    std::vector<Column> columns;
    std::function<std::optional<std::vector<Cell>>()> next;  // returns nothing at the end; throws Failure
};

// The result of a verb, with the exit code: kFailed for a "no", although nothing went wrong.
struct Answer {
    Answer(Table table, Exit code = Exit::kOk) : content(std::move(table)), exit(code) {}
    Answer(Remark remark, Exit code = Exit::kOk) : content(std::move(remark)), exit(code) {}
    Answer(Stream stream) : content(std::move(stream)), exit(Exit::kOk) {}

    std::variant<Table, Remark, Stream> content;
    Exit exit;
    std::string notice{};  // an additional line; not for a stream
};

enum class Form { kTable, kJson };

// Returns the text or document; for a stream, the line of headings.
std::string rendered(const Answer& answer, Form form);

// Prints an answer on standard output. Returns the answer's exit code; or kFailed, with a line on standard
// error, if standard output could not be written.
Exit print(const Answer& answer, Form form);

// Prints a failure: the document on standard output, or the line on standard error. Returns its exit code.
Exit print(const Failure& failure, Form form);

}  // namespace quill::cli
