// quillsec vdc: virtual device contexts as a whole.
#include <fmt/format.h>
#include <shadow.h>
#include <unistd.h>

#include <algorithm>

#include "cli/command.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

// The default context's accounts are the system's own as well.
constexpr uint32_t kLowest = 2;
constexpr uint32_t kHighest = SYSMGRCMN_VDC_ID_MAX;

std::string object(const std::string& id) { return fmt::format("virtual device context '{}'", id); }

std::vector<std::string> users_of(int32_t context) {
    std::vector<std::string> names;
    setspent();
    while (const spwd* entry = getspent()) {
        if (security_get_vdc_from_username(entry->sp_namp) == context &&
            is_internal_user(entry->sp_namp) == 0)
            names.emplace_back(entry->sp_namp);
    }
    endspent();
    return names;
}

void confirm(const std::string& whose, size_t count) {
    const Terminal terminal;
    if (!terminal.found()) {
        throw Failure{Exit::kUsage, whose,
                      whose + ": there is no terminal to ask whether to delete its users", "add --yes"};
    }
    if (!terminal.confirms(fmt::format("delete all {} users of {}, with their homes?", count, whose))) {
        throw Failure{Exit::kFailed, whose, whose + ": nothing was deleted", "answer yes to delete them"};
    }
}

Answer purge(const Arguments& arguments) {
    const std::string whose = object(arguments["ID"]);
    const auto id = number(arguments["ID"], kLowest, kHighest);
    if (!id) {
        throw Failure{Exit::kInvalidValue, whose, whose + " is not valid",
                      fmt::format("use {} to {}", kLowest, kHighest)};
    }
    if (geteuid() != 0) {
        throw Failure{Exit::kNotPermitted, whose, whose + ": only root may delete its users", "run as root"};
    }
    const auto context = static_cast<int32_t>(*id);
    const std::vector<std::string> before = users_of(context);
    if (!arguments.has("--yes") && !before.empty()) confirm(whose, before.size());
    security_del_vdc_users_for_vdc(context);
    const std::vector<std::string> after = users_of(context);

    Table table{"users", {"name", "result"}, {}};
    for (const std::string& name : before) {
        const bool left = std::ranges::find(after, name) != after.end();
        table.rows.push_back({name, left ? "still there" : "deleted"});
    }
    return {table, after.empty() ? Exit::kOk : Exit::kFailed};
}

std::string notes() {
    return "purge deletes the accounts of the context that are not internal, with their homes, 256 at a\n"
           "time; the system's log says what became of each. It ends with 1 when one is still there.\n\n"
           "With --json: {\"users\": [{\"name\", \"result\"}, ...]}.";
}

constexpr Verb kVerbs[] = {
    {"purge",
     "delete all users of a context",
     {{"ID", "the context, 2 to 99"}, {"--yes", "do not ask", Argument::kFlag}},
     purge},
};
}  // namespace

const Noun kVdc{"vdc", "virtual device contexts", notes, kVerbs};

}  // namespace quill::cli
