// quillsec service: switches, key sizes and ports, one 32-bit value each.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "cli/command.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

// The range of a service's number. A service that is not in this table is a switch.
struct Numbers {
    int32_t code;
    uint32_t low;
    uint32_t high;
    bool zero_too;  // 0 means no key
};

constexpr Numbers kNumbers[] = {
    {SECURITY_SERVICE_RSA_KEY, 768, 16384, true},         {SECURITY_SERVICE_DSA_KEY, 512, 4096, true},
    {SECURITY_SERVICE_RSA1_KEY, 512, 4096, true},         {SECURITY_SERVICE_PLOTY_HTTP_PORT, 1, 65535, false},
    {SECURITY_SERVICE_PLOTY_HTTPS_PORT, 1, 65535, false},
};

struct Default {
    int32_t code;
    uint32_t value;
};

#define SERVICE_DEFAULT(code, value) {code, value},
constexpr Default kDefaults[] = {SECURITY_DEFAULT_LIST(SERVICE_DEFAULT)};
#undef SERVICE_DEFAULT

struct Service {
    int32_t code;
    std::string name;
};

// The names of the library in their order, and the one service for which it has no name.
std::vector<Service> all_services() {
    std::vector<Service> services;
    for (int32_t i = 0; i < enable_info_str_table_size; ++i) {
        services.push_back({enable_info_str_table[i].code, enable_info_str_table[i].name});
    }
    services.push_back({SECURITY_SERVICE_PASSWORD_STRENGTH, "password-strength"});
    return services;
}

std::string object(const std::string& name) { return fmt::format("service '{}'", name); }

Service service_named(const std::string& name) {
    std::vector<std::string> names;
    for (const Service& service : all_services()) {
        if (folded(service.name) == folded(name)) return service;
        names.push_back(service.name);
    }
    const std::string meant = nearest(name, names);
    throw Failure{
        Exit::kNoSuchObject, object(name), fmt::format("{} does not exist", object(name)),
        meant.empty() ? "'quillsec service show' lists all" : fmt::format("did you mean '{}'?", meant)};
}

template <class Row, size_t count>
const Row* find(const Row (&rows)[count], int32_t code) {
    const Row* row = std::find_if(rows, rows + count, [=](const Row& r) { return r.code == code; });
    return row == rows + count ? nullptr : row;
}

std::string allowed(const Numbers* numbers) {
    if (!numbers) return "on or off";
    return fmt::format("{}{} to {}", numbers->zero_too ? "0 or " : "", numbers->low, numbers->high);
}

std::optional<uint32_t> switch_value(const std::string& text) {
    const std::string word = folded(text);
    if (word == "on" || word == "1") return 1;
    if (word == "off" || word == "0") return 0;
    return std::nullopt;
}

std::optional<uint32_t> number_value(const Numbers& numbers, const std::string& text) {
    if (numbers.zero_too && number(text, 0, 0)) return 0;
    return number(text, numbers.low, numbers.high);
}

uint32_t value_for(const Service& service, const std::string& text) {
    const Numbers* numbers = find(kNumbers, service.code);
    const auto value = numbers ? number_value(*numbers, text) : switch_value(text);
    if (value) return *value;
    throw Failure{Exit::kInvalidValue, object(service.name),
                  fmt::format("{}: value '{}' is not valid", object(service.name), text),
                  "use " + allowed(numbers)};
}

// A switch whose stored value is neither 0 nor 1 is shown as that number.
Cell value_cell(const Service& service, std::optional<uint32_t> value) {
    if (!value) return {nullptr, "not set"};
    if (*value > 1 || find(kNumbers, service.code)) return *value;
    return *value ? "on" : "off";
}

std::optional<uint32_t> stored_value(const Service& service) {
    uint32_t value = 0;
    const uint32_t status = status_of(cmi_enable_info_config(0, GET_REQ, service.code, &value));
    if (status == SECURITY_ERR_NO_VALUE) return std::nullopt;
    require_success(status, object(service.name), "read");
    return value;
}

Table table_of_values() { return {"services", {"name", "value"}, {}}; }

Answer show(const Arguments& arguments) {
    const std::string* name = arguments.find("NAME");
    Table table = table_of_values();
    for (const Service& service : name ? std::vector{service_named(*name)} : all_services()) {
        table.rows.push_back({service.name, value_cell(service, stored_value(service))});
    }
    return table;
}

Answer set(const Arguments& arguments) {
    const Service service = service_named(arguments["NAME"]);
    uint32_t value = value_for(service, arguments["VALUE"]);
    const uint32_t status = status_of(cmi_enable_info_config(0, SET_REQ, service.code, &value));
    require_success(status, object(service.name), "change");
    Table table = table_of_values();
    table.rows.push_back({service.name, value_cell(service, value)});
    return table;
}

// Only the daemon knows the default of telnet, so its "default" and "differs" are null.
Answer defaults(const Arguments&) {
    Table table{"defaults", {"name", "default", "value", "differs"}, {}};
    for (const Service& service : all_services()) {
        const Default* factory = find(kDefaults, service.code);
        if (!factory && service.code != SECURITY_SERVICE_TELNET) continue;
        const auto value = stored_value(service);
        const bool differs = factory && value != factory->value;
        table.rows.push_back({
            service.name,
            factory ? value_cell(service, factory->value) : Cell{nullptr, "depends on the card"},
            value_cell(service, value),
            {factory ? Json(differs) : Json(), differs ? "yes" : ""},
        });
    }
    return table;
}

std::string notes() {
    std::string text = "Services and their values:\n";
    for (const Service& service : all_services()) {
        const Numbers* numbers = find(kNumbers, service.code);
        text += fmt::format("  {:<20}{}{}\n", service.name, allowed(numbers),
                            numbers && numbers->zero_too ? " bits" : "");
    }
    return text +
           "  Names may be in any case, with '-' or '_' for blanks. 1 and 0 mean on and off.\n\n"
           "With --json: {\"services\": [{\"name\", \"value\"}, ...]}, from defaults\n"
           "  {\"defaults\": [{\"name\", \"default\", \"value\", \"differs\"}, ...]}. A value is \"on\", "
           "\"off\" or\n"
           "  a number, null if none was ever set; telnet's default and differs are null.";
}

constexpr Verb kVerbs[] = {
    {"show", "show all services, or one", {{"NAME", "the service", Argument::kOptional}}, show},
    {"set",
     "switch a service on or off, or give it its number",
     {{"NAME", "the service"}, {"VALUE", "on, off or a number"}},
     set,
     kSetsDevice},
    {"defaults", "show the factory defaults beside the present values", {}, defaults},
};
}  // namespace

const Noun kService{"service", "management services and security features", notes, kVerbs};

}  // namespace quill::cli
