// The reference platform's configuration file; quillplatform/sysmgr.h documents it.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quill {

struct Config {
    std::optional<int32_t> vdc_id;
    std::optional<uint16_t> card_type;
    std::vector<uint16_t> telnet_card_types;
    std::set<std::string, std::less<>> roles;  // beside the built-in ones
    std::set<std::string, std::less<>> locales;
};

// Read once, at first use. A missing file is an empty one; what cannot be read or understood is logged and
// left out. Where memory runs out it is read again the next time; until then nothing is configured, and the
// context is none, -1: nobody's accounts are taken for another context's.
const Config& config();

// A whole decimal number within the bounds, or nothing.
std::optional<int32_t> parse_number(const char* text, int32_t smallest, int32_t largest);

}  // namespace quill
