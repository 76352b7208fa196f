// What a command says, once for people and once for programs.
//
// A verb answers with a table or a remark; which of the two forms it takes is decided here and nowhere else.
//
// For people: aligned columns under a line of headings, plain ASCII around the values, the same on a
// terminal and in a file. Failures are one line on standard error: tool, object, what is wrong, remedy.
//
// With --json, standard output is exactly one document and standard error stays empty, unless standard output
// itself cannot be written:
//   an answer      {"services": [{"name": "ssh", "value": "on"}, ...]}
//                  one member, named for what is listed, with one object per row; its members are the
//                  columns. A row's value is a string or a number, as in the table, and null or a boolean
//                  where the table has words for that. One row is a list of one.
//   a failure      {"error": {"tool": "quillsec", "object": "service 'ssh'", "text": "...", "remedy": "...",
//                             "status": {"name": "SECURITY_ERR_NOT_PERMITTED", "hex": "0x404a0106"},
//                             "exit_code": 5}}
//                  status is null where the command failed before anything was asked; its name is null for
//                  a number that has none, and that of errno where the request was not delivered.
//   a yes or no    {"verified": false}, likewise a deed that leaves nothing to list: {"deleted": "amy"}
//   --version      {"version": "1.0.0"}
//   --help         {"help": "..."}
// Where there is something to be said beside an answer, for people the last line, its document has one more
// member, "notice", a text.
// Only a stream is not one document but one a line: {"number": 1, "change": "added", ...}
// Bytes that are not UTF-8 appear as U+FFFD; characters that a terminal would obey or not show, as \uXXXX.
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

// One value in its two forms.
struct Cell {
    Cell(const char* word) : value(word), text(word) {}
    Cell(const std::string& word) : value(word), text(word) {}
    Cell(uint32_t number) : value(number), text(std::to_string(number)) {}
    Cell(Json for_programs, std::string for_people)
        : value(std::move(for_programs)), text(std::move(for_people)) {}

    Json value;
    std::string text;
};

struct Table {
    std::string subject;               // what is listed: "services"
    std::vector<std::string> columns;  // in lower case
    std::vector<std::vector<Cell>> rows;
};

// A text for people and for programs that is no table: a yes or no, --help, --version.
struct Remark {
    std::string subject;
    Cell content;
    Json details = nullptr;  // further members of the document, an object, for programs alone
};

// A table whose rows come one at a time, for as long as they do.
struct Stream {
    struct Column {
        std::string name;
        size_t width;  // for people; what is wider moves the rest of its line
    };
    std::vector<Column> columns;
    std::function<std::optional<std::vector<Cell>>()> next;  // none at the end; throws Failure
};

// What a verb answers. The exit code is part of it: a "no" is kFailed although nothing went wrong.
struct Answer {
    Answer(Table table, Exit code = Exit::kOk) : content(std::move(table)), exit(code) {}
    Answer(Remark remark, Exit code = Exit::kOk) : content(std::move(remark)), exit(code) {}
    Answer(Stream stream) : content(std::move(stream)), exit(Exit::kOk) {}

    std::variant<Table, Remark, Stream> content;
    Exit exit;
    std::string notice{};  // what else is to be said of it, a line; not of a stream
};

enum class Form { kTable, kJson };

// Of a stream, what stands before its rows.
std::string rendered(const Answer& answer, Form form);

// Says an answer on standard output. Answers how the program ends: as the answer says, or kFailed, with a
// line on standard error, when it could not be written whole.
Exit say(const Answer& answer, Form form);

// The same for a text that is no answer to anybody: words for a shell to complete.
Exit say(const std::string& text);

// Says a failure where and as the form demands, and answers its exit code.
Exit say(const Failure& failure, Form form);

}  // namespace quill::cli
