// The reference platform's configuration file; quillplatform/sysmgr.h documents it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace quill {

struct Config {
    std::optional<int32_t> vdc_id;
    std::optional<uint16_t> card_type;
    std::vector<uint16_t> telnet_card_types;
};

// Read once, at first use. A missing file is an empty one; what cannot be understood is logged and left out.
const Config& config();

// A whole decimal number within the bounds, or nothing.
std::optional<int32_t> parse_number(const char* text, int32_t smallest, int32_t largest);

}  // namespace quill
