// The names of encodings, for people and programs: "clear", "hash", "cipher".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quill::cli {

// The number itself for one that has no name.
std::string encoding_name(uint32_t encoding);

std::optional<uint32_t> encoding_named(const std::string& name);

}  // namespace quill::cli
