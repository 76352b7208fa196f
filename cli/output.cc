#include "cli/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cli/words.h"
#include "quillsecurity/status.h"

namespace quill::cli {
namespace {
constexpr std::string_view kGap = "  ";

std::string dump(const Json& value) {
    return printable_json(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// Returns the number of characters of a UTF-8 text.
size_t width(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string heading(std::string column) {
    for (char& c : column) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return column;
}

// Appends a line without blanks at its end.
void add_line(std::string& page, const std::vector<std::string>& words, const std::vector<size_t>& widths) {
    std::string line;
    for (size_t i = 0; i < words.size(); ++i) {
        line += words[i];
        line.append(widths[i] - width(words[i]), ' ');
        line += kGap;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    page += line + '\n';
}

std::string as_text(const Table& table) {
    std::vector<std::vector<std::string>> lines(1);
    for (const std::string& column : table.columns) lines[0].push_back(heading(column));
    for (const auto& row : table.rows) {
        auto& line = lines.emplace_back();
        for (const Cell& cell : row) line.push_back(printable(cell.text));
    }
    std::vector<size_t> widths(table.columns.size());
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], width(line[i]));
    }
    std::string page;
    for (const auto& line : lines) add_line(page, line, widths);
    return page;
}

// One document with one row per line, so that it can be read as well.
std::string as_json(const Table& table) {
    std::string rows;
    for (const auto& row : table.rows) {
        Json object = Json::object();
        for (size_t i = 0; i < row.size(); ++i) object[table.columns[i]] = row[i].value;
        rows += (rows.empty() ? "\n  " : ",\n  ") + dump(object);
    }
    return fmt::format("{{{}:[{}{}]}}\n", dump(table.subject), rows, rows.empty() ? "" : "\n");
}

std::vector<size_t> widths_of(const Stream& stream, const std::vector<std::string>& words) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < words.size(); ++i)
        widths.push_back(std::max(stream.columns[i].width, width(words[i])));
    return widths;
}

std::string as_text(const Stream& stream) {
    std::vector<std::string> words;
    for (const auto& column : stream.columns) words.push_back(heading(column.name));
    std::string line;
    add_line(line, words, widths_of(stream, words));
    return line;
}

std::string as_json(const Stream&) { return ""; }

std::string row_of(const Stream& stream, const std::vector<Cell>& row, Form form) {
    Json object = Json::object();
    std::vector<std::string> words;
    for (size_t i = 0; i < row.size(); ++i) {
        object[stream.columns[i].name] = row[i].value;
        words.push_back(printable(row[i].text));
    }
    if (form == Form::kJson) return dump(object) + '\n';
    std::string line;
    add_line(line, words, widths_of(stream, words));
    return line;
}

std::string as_text(const Remark& remark) { return remark.content.text + '\n'; }

std::string as_json(const Remark& remark) {
    Json document{{remark.subject, remark.content.value}};
    if (remark.details.is_object()) document.update(remark.details);
    return dump(document) + '\n';
}

std::string as_text(const Failure& failure) {
    return printable(fmt::format("quillsec: {}{}{}", failure.text, failure.remedy.empty() ? "" : "; ",
                                 failure.remedy)) +
           '\n';
}

std::string as_json(const Failure& failure) {
    Json status;
    if (failure.status != SECURITY_OK) {
        const std::string name = status_name(failure.status);
        status = {{"name", name.empty() ? Json() : Json(name)},
                  {"hex", fmt::format("0x{:08x}", failure.status)}};
    }
    const Json error = {{"tool", "quillsec"},   {"object", failure.object},
                        {"text", failure.text}, {"remedy", failure.remedy},
                        {"status", status},     {"exit_code", static_cast<int>(failure.exit)}};
    return dump({{"error", error}}) + '\n';
}

// Returns 0, or the errno of the write that failed.
int write_whole(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// If standard error cannot be written either, there is nowhere left to report it.
void print_error(const Failure& failure) { write_whole(STDERR_FILENO, as_text(failure)); }

// Returns kOk; or kFailed, with a line on standard error, if standard output could not be written.
Exit print_text(const std::string& text) {
    const int error = write_whole(STDOUT_FILENO, text);
    if (error == 0) return Exit::kOk;
    print_error({Exit::kFailed, "standard output",
                 fmt::format("standard output cannot be written: {}", error_text(error)),
                 "a change that was asked for has been made"});
    return Exit::kFailed;
}
}  // namespace

std::string rendered(const Answer& answer, Form form) {
    std::string page = std::visit(
        [=](const auto& content) { return form == Form::kJson ? as_json(content) : as_text(content); },
        answer.content);
    if (answer.notice.empty()) return page;
    if (form == Form::kTable) return page + answer.notice + '\n';
    return page.insert(page.rfind('}'), fmt::format(",\"notice\":{}", dump(answer.notice)));
}

Exit print(const Answer& answer, Form form) {
    Exit printed = print_text(rendered(answer, form));
    if (const auto* stream = std::get_if<Stream>(&answer.content)) {
        while (printed == Exit::kOk) {
            const auto row = stream->next();
            if (!row) break;
            printed = print_text(row_of(*stream, *row, form));
        }
    }
    return printed == Exit::kOk ? answer.exit : printed;
}

Exit print(const Failure& failure, Form form) {
    const bool printed = form == Form::kJson && write_whole(STDOUT_FILENO, as_json(failure)) == 0;
    if (!printed) print_error(failure);
    return failure.exit;
}

}  // namespace quill::cli
