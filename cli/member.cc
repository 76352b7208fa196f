// quillsec role and quillsec locale: the lists of a user's roles and locales.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <random>
#include <thread>

#include "base/status.h"
#include "cli/command.h"
#include "cli/exchange.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

struct Kind {
    const char* name;
    const char* plural;
    int32_t request_type;
    uint32_t (*assign)(uint32_t, const char*, const char*, const char*, uint32_t);
    uint32_t (*unassign)(uint32_t, const char*, const char*, const char*, uint32_t);
};

constexpr Kind kRoles{"role", "roles", SECURITY_ROLES_REQUEST, cmi_security_common_user_role_assign,
                      cmi_security_common_user_role_unassign};
constexpr Kind kLocales{"locale", "locales", SECURITY_LOCALE_ASSIGN_REQUEST,
                        cmi_security_common_user_locale_assign, cmi_security_common_user_locale_unassign};

constexpr size_t kLongestName = sizeof(common_user_member::name) - 1;
constexpr size_t kLongestUser = sizeof(common_user_member::user_name) - 1;

// Refuses a name that does not fit: cut, it would be another name.
const std::string& checked(const std::string& name, const char* what, size_t longest) {
    if (!name.empty() && name.size() <= longest) return name;
    const std::string object = fmt::format("{} '{}'", what, name);
    throw Failure{Exit::kInvalidValue, object, object + ": the name is not valid",
                  fmt::format("use 1 to {} bytes", longest)};
}

Answer list(const Kind& kind, const std::string& user) {
    std::vector<std::string> names;
    require_success(read_names(kind.request_type, user, names), fmt::format("user '{}'", user), "read");
    Table table{kind.plural, {"user", kind.name}, {}};
    for (const std::string& name : names) table.rows.push_back({user, name});
    return table;
}

// The library changes a list in two steps: it reads the list and stores all of it. The second step fails if
// another client has changed the list in between (SECURITY_ERR_CHANGED) or if the connection on which the
// list was read is gone (ESTALE). Nothing is changed then, and both steps are repeated.
bool lost_its_race(uint32_t status) {
    return status == SECURITY_ERR_CHANGED || status == undelivered_status(ESTALE);
}

// Waits for a random time: up to 1 ms after the first try, up to 40 ms later, so that competing clients do
// not collide again.
void pause_after(int tries) {
    constexpr int kLongest = 40;
    static std::minstd_rand random(std::random_device{}());
    const int longest = std::min(tries, kLongest) * 1000;
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution(0, longest)(random)));
}

// Repeats the change up to 64 times. Returns the status of the last try; SECURITY_ERR_CHANGED if all lost the
// race.
template <class Change>
uint32_t retried(Change change) {
    constexpr int kMostTries = 64;
    for (int tries = 1; tries <= kMostTries; ++tries) {
        const uint32_t status = status_of(change());
        if (!lost_its_race(status)) return status;
        if (tries < kMostTries) pause_after(tries);
    }
    return SECURITY_ERR_CHANGED;
}

template <const Kind& kind>
Answer show(const Arguments& arguments) {
    return list(kind, checked(arguments["USER"], "user", kLongestUser));
}

template <const Kind& kind>
Answer change(const Arguments& arguments, decltype(Kind::assign) function, const char* action) {
    const std::string& user = checked(arguments["USER"], "user", kLongestUser);
    const std::string& name = checked(arguments["NAME"], kind.name, kLongestName);
    const uint32_t status = retried([&] {
        return function(0, user.c_str(), name.c_str(), security_cmi_username, security_cmi_session_id);
    });
    const bool about_user = status == SECURITY_ERR_NOT_FOUND;
    require_success(status,
                    about_user ? fmt::format("user '{}'", user)
                               : fmt::format("{} '{}' of user '{}'", kind.name, name, user),
                    action);
    return list(kind, user);
}

template <const Kind& kind>
Answer add(const Arguments& arguments) {
    return change<kind>(arguments, kind.assign, "add");
}

template <const Kind& kind>
Answer remove(const Arguments& arguments) {
    return change<kind>(arguments, kind.unassign, "remove");
}

template <const Kind& kind>
std::string notes() {
    return fmt::format(
        "A user has up to 64 {0}. If another client changes the list meanwhile, the change is tried again; it\n"
        "fails with 8 if that happens again and again.\n\nWith --json: {{\"{0}\": [{{\"user\", \"{1}\"}}, "
        "...]}}.",
        kind.plural, kind.name);
}

// NOLINTBEGIN(readability-identifier-naming): a template of constants is a variable to the check
template <const Kind& kind>
constexpr Verb kVerbs[] = {
    {"show", "show what a user has", {{"USER", "the user"}}, show<kind>},
    {"add", "add it to a user", {{"USER", "the user"}, {"NAME", "what to add"}}, add<kind>, kNeedsDaemon},
    {"remove",
     "remove it from a user",
     {{"USER", "the user"}, {"NAME", "what to remove"}},
     remove<kind>,
     kNeedsDaemon},
};
// NOLINTEND(readability-identifier-naming)
}  // namespace

const Noun kRole{"role", "roles of users", notes<kRoles>, kVerbs<kRoles>};
const Noun kLocale{"locale", "locales of users", notes<kLocales>, kVerbs<kLocales>};

}  // namespace quill::cli
