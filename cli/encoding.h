// The names of encodings on the command line and in the output: "clear", "hash", "cipher".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quill::cli {

// Returns the number as text if the encoding has no name.
std::string encoding_name(uint32_t encoding);

std::optional<uint32_t> encoding_named(const std::string& name);

}  // namespace quill::cli
