// quillsec banner: the text that is shown before a login. The daemon stores its delimiter; the text is a
// file, which a hook of the daemon copies to where login programs read it whenever the delimiter is set.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "base/block.h"
#include "cli/command.h"
#include "cli/input_file.h"
#include "cli/words.h"
#include "quillplatform/files.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

using File = std::unique_ptr<FILE, Release<fclose>>;

constexpr const char* kDelimiterObject = "the banner's delimiter";

std::string request_delimiter(uint32_t operation, char delimiter, const char* action) {
    require_success(status_of(cmi_security_banner_config(0, operation, &delimiter)), kDelimiterObject,
                    action);
    return {delimiter};
}

std::string delimiter() { return request_delimiter(GET_REQ, SECURITY_DEFAULT_BANNER_DELIMITER, "read"); }

// Each context has its own banner.
std::string banner_file() { return security_get_system_filename(QUILL_BANNER_FILE); }

// Returns the text as login programs get it; empty if there is no banner.
std::string text() {
    const std::string path = banner_file();
    const File file(fopen(path.c_str(), "re"));
    if (file == nullptr && errno == ENOENT) return "";
    if (file == nullptr) throw file_failure(path, errno);
    std::string output(SECURITY_BANNER_TEXT_SIZE, '\0');
    const int32_t length = security_read_banner_motd_msg(output.data(), file.get());
    if (length < 0)
        throw Failure{Exit::kFailed, "the banner", "the banner is too long or cannot be read",
                      "set it again"};
    output.resize(static_cast<size_t>(length));
    return output;
}

// Escapes what could control the terminal, but keeps the line breaks.
std::string printable_lines(const std::string& lines) {
    std::string page;
    for (size_t at = 0; at < lines.size();) {
        const size_t end = std::min(lines.find('\n', at), lines.size());
        if (at != 0) page += '\n';
        page += printable(lines.substr(at, end - at));
        at = end + 1;
    }
    return page;
}

Answer show(const Arguments&) {
    const std::string stored = text();
    return Remark{"banner", {{{"delimiter", delimiter()}, {"text", stored}}, printable_lines(stored)}};
}

void write_banner(std::string_view bytes) {
    namespace fs = std::filesystem;
    const std::string path = banner_file(), draft = path + ".new";
    std::error_code ignored;  // opening the file reports it
    fs::create_directories(fs::path(path).parent_path(), ignored);
    unlink(draft.c_str());
    const File file(fopen(draft.c_str(), "wxe"));
    if (file == nullptr) throw file_failure(path, errno);
    const bool written = fchmod(fileno(file.get()), 0644) == 0 &&
                         fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
                         fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0 &&
                         rename(draft.c_str(), path.c_str()) == 0;
    if (written) return;
    const int error = errno;
    unlink(draft.c_str());
    throw file_failure(path, error);
}

// The daemon activates the text when the delimiter is set, so it is set even if it stays the same. Reading it
// first shows whether the daemon can be reached.
Answer set(const Arguments& arguments) {
    const InputFile file(file_named(arguments["FILE"]), SECURITY_BANNER_FILE_LIMIT - 1);
    const std::string_view bytes = file.bytes();
    const std::string before = delimiter();
    const bool enclosed = bytes.size() > 1 && bytes.front() == bytes.back();
    write_banner(bytes);
    request_delimiter(SET_REQ, enclosed ? bytes.front() : before.front(), "change");
    return show(arguments);
}

Answer set_or_show_delimiter(const Arguments& arguments) {
    const std::string* wanted = arguments.find("CHAR");
    if (wanted != nullptr && wanted->size() != 1)
        throw Failure{Exit::kInvalidValue, kDelimiterObject,
                      fmt::format("{}: value '{}' is not valid", kDelimiterObject, *wanted),
                      "use one character"};
    const std::string now =
        wanted != nullptr ? request_delimiter(SET_REQ, wanted->front(), "change") : delimiter();
    return Remark{"delimiter", {now, printable(now)}};
}

std::string notes() {
    return fmt::format(
        "The text is in {} and has at most {} bytes. In a file whose first and last\n"
        "byte are the same, that byte is the delimiter and no part of the text. In the text, \\n stands for\n"
        "the name of the host and \\l for the line of the login.\n\n"
        "With --json: {{\"banner\": {{\"delimiter\", \"text\"}}}}; from delimiter {{\"delimiter\": the "
        "character}}.",
        banner_file(), SECURITY_BANNER_FILE_LIMIT - 1);
}

constexpr Verb kVerbs[] = {
    {"show", "show the banner", {}, show},
    {"set", "set the banner from a file", {{"FILE", "the file"}}, set, kSetsDevice},
    {"delimiter",
     "show the delimiter, or set it",
     {{"CHAR", "the new delimiter", Argument::kOptional}},
     set_or_show_delimiter,
     kSetsDevice},
};
}  // namespace

const Noun kBanner{"banner", "the text that is shown before a login", notes, kVerbs};

}  // namespace quill::cli
