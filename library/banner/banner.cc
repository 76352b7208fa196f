// The message-of-the-day banner: the handler of its delimiter, and reading its text from a file.
//
// There is one delimiter, so its key is the table number alone. The text is in a file that the caller opens.
#include <array>
#include <cstddef>
#include <string_view>

#include "base/tables.h"
#include "library/common/request.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

uint32_t serve(uint32_t handle, uint32_t operation, char& delimiter) {
    const Key key(kBannerTable);
    const Run value{&delimiter, sizeof delimiter};
    switch (operation) {
    case GET_REQ: {
        trace("GET operation for banner-config.");
        const uint32_t status = fetch(handle, key, value);
        if (status != SECURITY_PSS_NO_KEY) return status;
        delimiter = SECURITY_DEFAULT_BANNER_DELIMITER;
        return SECURITY_OK;
    }
    case GETNEXT_REQ:
        trace("GETNEXT for banner config.");
        delimiter = SECURITY_DEFAULT_BANNER_DELIMITER;
        return SECURITY_PSS_NO_KEY;  // there is only one; the store is not asked
    case SET_REQ:
        trace("SET operation for banner config, delimiter char:%c.", delimiter);
        return store(handle, key, value);
    case DEL_REQ:
        trace("DELETE operation for banner config.");
        return erase(handle, key);
    }
    return SECURITY_OK;  // any other operation does nothing
}

struct Escape {
    char letter;  // after the backslash
    std::string_view text;
};
constexpr Escape kEscapes[] = {{'n', "$(hostname)"}, {'l', "$(line)"}};

// Returns the escape that the two characters at `at` are, or null if they are none.
const Escape* escape_at(const char* at) {
    if (at[0] != '\\') return nullptr;
    for (const Escape& known : kEscapes)
        if (at[1] == known.letter) return &known;
    return nullptr;
}

using FileBytes = std::array<char, SECURITY_BANNER_FILE_LIMIT + 1>;

// Reads the whole file and terminates it. Returns false if it cannot be read or has too many bytes; the end
// of the file is known only after a read that returned fewer bytes than asked for.
bool read_whole(FILE* stream, FileBytes& bytes, size_t& length) {
    length = fread(bytes.data(), 1, SECURITY_BANNER_FILE_LIMIT, stream);
    bytes[length] = '\0';
    return feof(stream) != 0;
}

// Writes the text from `at` up to the delimiter or the terminator, with escapes replaced. Returns its length.
int32_t expand(const char* at, char delimiter, char* output) {
    char* end = output;
    while (*at != delimiter && *at != '\0') {
        if (const Escape* escape = escape_at(at)) {
            end += escape->text.copy(end, escape->text.size());
            at += 2;
        } else {
            *end++ = *at++;
        }
    }
    *end = '\0';
    return static_cast<int32_t>(end - output);
}

enum class Delimiter { kEncloses, kIsText };

int32_t read_banner(char* output, FILE* stream, Delimiter meaning) {
    FileBytes bytes;
    size_t length;
    if (!read_whole(stream, bytes, length)) return -1;
    const bool enclosed = meaning == Delimiter::kEncloses && length != 0 && bytes[0] == bytes[length - 1];
    return enclosed ? expand(&bytes[1], bytes[0], output) : expand(bytes.data(), '\0', output);
}

}  // namespace
}  // namespace quill

uint32_t security_banner_info_config(uint32_t handle, uint32_t operation, char* delimiter) {
    using namespace quill;
    trace("In %s:", __func__);
    const uint32_t status = serve(handle, operation, *delimiter);
    trace("status for the operation:%s", status_text(status));
    return status;
}

uint32_t cmi_security_banner_config(uint32_t connection, uint32_t operation, char* delimiter) {
    return quill::request(SECURITY_BANNER_REQUEST, operation, *delimiter, connection);
}

int32_t security_read_banner_motd_msg(char* output, FILE* stream) {
    return quill::read_banner(output, stream, quill::Delimiter::kEncloses);
}

int32_t security_read_banner_motd_msg_with_delimiter(char* output, FILE* stream) {
    return quill::read_banner(output, stream, quill::Delimiter::kIsText);
}
