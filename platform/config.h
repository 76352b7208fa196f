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
    std::set<std::string, std::less<>> roles;  // in addition to the built-in ones
    std::set<std::string, std::less<>> locales;
};

// Returns the configuration, which is read once, on first use. A missing file is an empty one; an unreadable
// file or an invalid line is logged and ignored. If memory runs out, returns a configuration without settings
// whose context is -1, so that no context's accounts are taken for another's, and reads again the next time.
const Config& config();

// Returns the decimal number that is the whole text if it is within the bounds, else nothing; also for null.
std::optional<int32_t> parse_number(const char* text, int32_t smallest, int32_t largest);

}  // namespace quill
