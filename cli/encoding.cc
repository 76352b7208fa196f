#include "cli/encoding.h"

#include "cli/words.h"
#include "quillsecurity/records.h"

namespace quill::cli {
namespace {

struct Encoding {
    uint32_t number;
    const char* name;
};

constexpr Encoding kEncodings[] = {
    {SECURITY_ENCRYPTION_CLEAR, "clear"},
    {SECURITY_ENCRYPTION_HASH, "hash"},
    {SECURITY_ENCRYPTION_CIPHER, "cipher"},
};
}  // namespace

std::string encoding_name(uint32_t encoding) {
    for (const Encoding& known : kEncodings) {
        if (known.number == encoding) return known.name;
    }
    return std::to_string(encoding);
}

std::optional<uint32_t> encoding_named(const std::string& name) {
    for (const Encoding& known : kEncodings) {
        if (known.name == folded(name)) return known.number;
    }
    return std::nullopt;
}

}  // namespace quill::cli
