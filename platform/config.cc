#include "platform/config.h"

#include <ini.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string_view>

#include "quillplatform/sysmgr.h"

namespace quill {
namespace {

constexpr int32_t kNoContext = -1;
constexpr int32_t kMaxCardType = 65535;
constexpr size_t kLongestName = 64;

const char* path() {
    const char* path = getenv("QUILL_PLATFORM_CONF");
    return path != nullptr && *path != '\0' ? path : "/etc/quillsecurity/platform.conf";
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::optional<int32_t> number_of(std::string_view text, int32_t smallest, int32_t largest) {
    int32_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end || number < smallest || number > largest) return std::nullopt;
    return number;
}

// Adds the card types of a list. Returns false and adds none if one of them is invalid.
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

// Whether a name is valid: printable and not longer than the fields of records.
bool is_name(std::string_view name) {
    return !name.empty() && name.size() <= kLongestName &&
           std::ranges::all_of(name, [](unsigned char c) { return c > ' ' && c < 127; });
}

bool add_roles(Config& config, std::string_view list) {
    std::set<std::string, std::less<>> listed;
    while (!list.empty()) {
        const size_t comma = list.find(',');
        const std::string_view name = trimmed(list.substr(0, comma));
        if (!is_name(name)) return false;
        listed.emplace(name);
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
    }
    config.roles.merge(listed);
    return true;
}

// Adds the names in a file of one name per line; skips empty lines and those that begin with '#'.
bool add_locales(Config& config, const char* path) {
    if (path[0] != '/') return false;  // daemon and clients have different working directories
    errno = 0;
    std::ifstream file(path);
    if (!file && errno != ENOMEM) return false;
    for (std::string line; std::getline(file, line);) {
        const std::string_view name = trimmed(line);
        if (is_name(name) && name[0] != '#') config.locales.emplace(name);
    }
    if (!file.eof() && errno == ENOMEM) throw std::bad_alloc();  // std::getline() does not throw it
    return true;
}

// Returns false if the setting is unknown or its value invalid.
bool set(Config& config, const std::string_view name, const char* value) {
    if (name == "vdc_id") {
        const auto id = parse_number(value, 1, SYSMGRCMN_VDC_ID_MAX);
        if (id) config.vdc_id = id;
        return id.has_value();
    }
    if (name == "card_type") {
        const auto type = parse_number(value, 0, kMaxCardType);
        if (type) config.card_type = static_cast<uint16_t>(*type);
        return type.has_value();
    }
    if (name == "roles") return add_roles(config, value);
    if (name == "locales") return add_locales(config, value);
    if (name == "telnet_card_types") return add_card_types(config.telnet_card_types, value);
    return false;
}

struct Reading {
    Config& config;
    bool no_memory = false;
};

// Called by ini_parse() for each line of the form name = value. Must not throw, since inih is C.
int on_line(void* user, const char* section, const char* name, const char* value) {
    if (strcmp(section, "system") != 0) return 1;  // other sections are for other programs
    auto& reading = *static_cast<Reading*>(user);
    try {
        if (!set(reading.config, name, value))
            syslog(LOG_WARNING, "%s: '%s = %s' is invalid and was ignored", path(), name, value);
    } catch (const std::bad_alloc&) {
        reading.no_memory = true;
    }
    return 1;
}

Config read_config() {
    Config config;
    if (*path() != '/') {
        syslog(LOG_WARNING, "%s: not an absolute path; the file is not read", path());
        return config;
    }
    Reading reading{config};
    errno = 0;
    const int line = ini_parse(path(), on_line, &reading);
    if (reading.no_memory || (line < 0 && errno == ENOMEM)) throw std::bad_alloc();
    if (line < 0 && errno != ENOENT) syslog(LOG_WARNING, "%s cannot be read: %m", path());
    // inih reports only the first line that it cannot parse.
    if (line > 0)
        syslog(LOG_WARNING, "%s: line %d, and perhaps others, is neither a section nor name = value", path(),
               line);
    return config;
}

}  // namespace

std::optional<int32_t> parse_number(const char* text, int32_t smallest, int32_t largest) {
    return text == nullptr ? std::nullopt : number_of(text, smallest, largest);
}

const Config& config() try {
    static const Config kConfig = read_config();
    return kConfig;
} catch (const std::bad_alloc&) {
    static Config none;
    none.vdc_id = kNoContext;
    return none;
}

}  // namespace quill
