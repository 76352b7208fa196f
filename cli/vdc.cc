// quillsec vdc: virtual device contexts as a whole.
#include <fmt/format.h>
#include <shadow.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "cli/command.h"
#include "cli/exchange.h"
#include "cli/temporary_homes.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

// Not context 1, whose accounts include those of the system.
constexpr uint32_t kLowest = 2;
constexpr uint32_t kHighest = SYSMGRCMN_VDC_ID_MAX;

constexpr Argument kWithoutDaemon{
    "--without-daemon", "delete the accounts even if the context's daemon does not run", Argument::kFlag};

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

// Puts this process into another context while in scope: requests go to the daemon of that context.
class InContext {
 public:
    explicit InContext(uint32_t context) {
        if (const char* text = getenv(kVariable)) before_ = text;
        setenv(kVariable, std::to_string(context).c_str(), 1);
    }
    ~InContext() {
        if (before_)
            setenv(kVariable, before_->c_str(), 1);
        else
            unsetenv(kVariable);
    }
    InContext(const InContext&) = delete;
    InContext& operator=(const InContext&) = delete;

 private:
    static constexpr char kVariable[] = "SYSMGR_VDC_ID";
    std::optional<std::string> before_;
};

// Makes the daemon of the context delete its records of users without an account, in batches.
void drop_orphans(uint32_t context, const std::string& whose) {
    constexpr int kMostBatches = 100000;
    const InContext scope(context);
    for (int i = 0; i < kMostBatches; ++i) {
        security_orphans batch{};
        require_success(ask(SECURITY_ORPHANS_REQUEST, DEL_REQ, &batch, sizeof batch), whose, "delete");
        if (batch.dropped == 0) return;
    }
    throw Failure{Exit::kBusy, whose, whose + ": the daemon always finds more records of deleted users",
                  "try again"};
}

// Before any account is deleted: if the daemon cannot be reached, nothing is changed.
void drop_orphans_first(uint32_t context, const std::string& whose) {
    try {
        drop_orphans(context, whose);
    } catch (Failure& failure) {
        const std::string prefix = failure.object == whose ? "" : whose + ": ";
        failure.text = fmt::format("{}{}; nothing was deleted", prefix, failure.text);
        failure.remedy = fmt::format(
            "{}, or add --without-daemon: its records of the users then stay until purge is run again",
            failure.exit == Exit::kUnreachable ? "start the quillsecurityd of this context" : failure.remedy);
        throw;
    }
}

void drop_orphans_last(uint32_t context, const std::string& whose) {
    try {
        drop_orphans(context, whose);
    } catch (Failure& failure) {
        failure.text +=
            fmt::format("; the accounts of {} are deleted, the daemon's records of them are not", whose);
        failure.remedy = fmt::format("run 'quillsec vdc purge {}' again", context);
        throw;
    }
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
    if (!id || arguments["ID"] != std::to_string(*id)) {
        throw Failure{Exit::kInvalidValue, whose, whose + " is not valid",
                      fmt::format("use {} to {}", kLowest, kHighest)};
    }
    if (geteuid() != 0) {
        throw Failure{Exit::kNotPermitted, whose, whose + ": only root may delete its users", "run as root"};
    }
    const auto context = static_cast<int32_t>(*id);
    const bool with_daemon = !arguments.has(kWithoutDaemon.name);
    const std::vector<std::string> before = users_of(context);
    if (!arguments.has("--yes") && !before.empty()) confirm(whose, before.size());
    if (with_daemon) drop_orphans_first(*id, whose);
    if (!before.empty()) secure_temporary_homes();
    security_del_vdc_users_for_vdc(context);
    const std::vector<std::string> after = users_of(context);
    if (with_daemon && !before.empty()) drop_orphans_last(*id, whose);

    Table table{"users", {"name", "result"}, {}};
    for (const std::string& name : before) {
        const bool left = std::ranges::find(after, name) != after.end();
        table.rows.push_back({name, left ? "still there" : "deleted"});
    }
    return {table, after.empty() ? Exit::kOk : Exit::kFailed};
}

std::string notes() {
    return "purge deletes the accounts of the context that are not internal, with their homes, 256 at a\n"
           "time; the system's log has the result for each. It ends with 1 if one is still there. The daemon\n"
           "of that context then deletes what it stores for users without an account: roles, locales and\n"
           "keys. If it does not run, nothing is deleted, unless --without-daemon is given: then run purge\n"
           "again when it runs, which deletes the rest.\n\n"
           "With --json: {\"users\": [{\"name\", \"result\"}, ...]}.";
}

constexpr Verb kVerbs[] = {
    {"purge",
     "delete all users of a context",
     {{"ID", "the context, 2 to 99"}, {"--yes", "do not ask", Argument::kFlag}, kWithoutDaemon},
     purge},
};
}  // namespace

const Noun kVdc{"vdc", "virtual device contexts", notes, kVerbs};

}  // namespace quill::cli
