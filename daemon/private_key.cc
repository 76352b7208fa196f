#include "daemon/private_key.h"

#include <algorithm>
#include <string>

namespace quill {
namespace {

constexpr std::string_view kBegin = "-----BEGIN ";
// The ends of the BEGIN and END lines of the blocks that ssh-keygen reads.
constexpr std::string_view kKinds[] = {"RSA PRIVATE KEY-----", "DSA PRIVATE KEY-----", "PRIVATE KEY-----",
                                       "OPENSSH PRIVATE KEY-----"};

// Removes the first line from the text and returns it, without its line break and blanks before that.
std::string_view take_line(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line.substr(0, line.find_last_not_of(" \t\r") + 1);
}

void append_line(SecretBytes& block, std::string_view line) {
    append(block, line);
    block.push_back('\n');
}

// Moves the lines up to the END line of this kind to `block`. Returns false if one of them is not base64.
bool take_body(std::string_view& text, std::string_view kind, SecretBytes& block) {
    const std::string end = "-----END " + std::string(kind);
    while (!text.empty()) {
        const std::string_view line = take_line(text);
        if (line != end && !is_base64(line)) return false;
        append_line(block, line);
        if (line == end) return true;
    }
    return false;
}

}  // namespace

bool is_base64(std::string_view text) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    return !text.empty() && text.find_first_not_of(kAlphabet) == text.npos;
}

SecretBytes private_key_block(std::string_view text) {
    SecretBytes block;
    while (!text.empty()) {
        const std::string_view line = take_line(text);
        if (!line.starts_with(kBegin)) continue;
        const auto* kind = std::find(std::begin(kKinds), std::end(kKinds), line.substr(kBegin.size()));
        if (kind == std::end(kKinds) || !block.empty()) return {};
        append_line(block, line);
        if (!take_body(text, *kind, block)) return {};
    }
    return block;
}

}  // namespace quill
