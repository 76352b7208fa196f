#include "platform/config.h"

#include <ini.h>
#include <syslog.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace quill {
namespace {

constexpr int32_t kMaxVdc = 99;
constexpr int32_t kMaxCardType = 65535;

const char* path() {
    const char* path = getenv("QUILL_PLATFORM_CONF");
    return path != nullptr && *path != '\0' ? path : "/etc/quillsecurity/platform.conf";
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<int32_t> number_of(std::string_view text, int32_t smallest, int32_t largest) {
    int32_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end || number < smallest || number > largest) return std::nullopt;
    return number;
}

// All of the list or, where one of it is no card type, nothing.
bool add_card_types(std::vector<uint16_t>& types, std::string_view list) {
    std::vector<uint16_t> listed;
    while (!list.empty()) {
        const size_t comma = list.find(',');
        const auto type = number_of(trimmed(list.substr(0, comma)), 0, kMaxCardType);
        if (!type) return false;
        listed.push_back(static_cast<uint16_t>(*type));
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
    }
    types.insert(types.end(), listed.begin(), listed.end());
    return true;
}

bool set(Config& config, const std::string_view name, const char* value) {
    if (name == "vdc_id") {
        const auto id = parse_number(value, 1, kMaxVdc);
        if (id) config.vdc_id = id;
        return id.has_value();
    }
    if (name == "card_type") {
        const auto type = parse_number(value, 0, kMaxCardType);
        if (type) config.card_type = static_cast<uint16_t>(*type);
        return type.has_value();
    }
    if (name == "telnet_card_types") return add_card_types(config.telnet_card_types, value);
    return false;
}

// inih calls this for each line of the form name = value.
int on_line(void* user, const char* section, const char* name, const char* value) {
    if (strcmp(section, "system") != 0) return 1;  // a section of somebody else
    return set(*static_cast<Config*>(user), name, value) ? 1 : 0;
}

Config read_config() {
    Config config;
    const int line = ini_parse(path(), on_line, &config);
    if (line > 0) syslog(LOG_WARNING, "%s: line %d is not understood and was left out", path(), line);
    return config;
}

}  // namespace

std::optional<int32_t> parse_number(const char* text, int32_t smallest, int32_t largest) {
    return text == nullptr ? std::nullopt : number_of(text, smallest, largest);
}

const Config& config() {
    static const Config kConfig = read_config();
    return kConfig;
}

}  // namespace quill
