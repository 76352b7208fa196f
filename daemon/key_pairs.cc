// Each command about a key pair is done by a child with the user's rights (daemon/key_folder.h), while the
// daemon does nothing else. The user can signal that child, so it is waited for no longer than its work may
// take, and ended at once when it is stopped.
#include "daemon/key_pairs.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "base/descriptor.h"
#include "daemon/account_files.h"
#include "daemon/await_child.h"
#include "daemon/homes.h"
#include "daemon/key_folder.h"
#include "platform/service.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uid_t kFirstUser = 1000;  // below are the system's own accounts
constexpr std::chrono::seconds kGenerating(60);
constexpr std::chrono::seconds kAnythingElse(5);
constexpr std::chrono::seconds kReporting(1);  // what a child that is out of time has left to say so

struct Command {
    uint32_t kind, operation;
    const KeyType& type;
    KeyPairWork work;
    std::chrono::seconds limit = kAnythingElse;
};

constexpr Command kCommands[] = {
    {SECURITY_KEY_PAIR_GENERATE_RSA, SET_REQ, kRsaPair, &KeyFolder::generate, kGenerating},
    {SECURITY_KEY_PAIR_GENERATE_DSA, SET_REQ, kDsaPair, &KeyFolder::generate, kGenerating},
    {SECURITY_KEY_PAIR_DELETE_RSA, DEL_REQ, kRsaPair, &KeyFolder::remove},
    {SECURITY_KEY_PAIR_DELETE_DSA, DEL_REQ, kDsaPair, &KeyFolder::remove},
    {SECURITY_KEY_PAIR_SIZE_RSA, GET_REQ, kRsaPair, &KeyFolder::size},
    {SECURITY_KEY_PAIR_SIZE_DSA, GET_REQ, kDsaPair, &KeyFolder::size},
};

constexpr Command kTransfers[] = {
    {SECURITY_KEY_PAIR_IMPORT_RSA, SET_REQ, kRsaPair, &KeyFolder::import_pair},
    {SECURITY_KEY_PAIR_IMPORT_DSA, SET_REQ, kDsaPair, &KeyFolder::import_pair},
    {SECURITY_KEY_PAIR_EXPORT_RSA, SET_REQ, kRsaPair, &KeyFolder::export_pair},
    {SECURITY_KEY_PAIR_EXPORT_DSA, SET_REQ, kDsaPair, &KeyFolder::export_pair},
};

// Kills the child and waits for it, but not for ever: a file system of the user's making can hold even a
// killed process.
void end_child(pid_t child) {
    constexpr int kMilliseconds = 1000;
    kill(-child, SIGKILL);  // ssh-keygen below it as well
    kill(child, SIGKILL);   // should it not have come to lead its session yet
    for (int i = 0; i < kMilliseconds && waitpid(child, nullptr, WNOHANG) == 0; ++i) usleep(1000);
}

void log_failure(const ssh_key_cmd_rec& record, const Command& command, const char* reason) {
    syslog(LOG_ERR, "the %s key pair of %s: command %u failed: %s", command.type.name,
           log_safe(record.user_name).c_str(), record.kind, reason);
}

// A child that dies on the way, is stopped or is not done in time leaves the outcome a failure.
KeyPairOutcome run_in_child(const passwd& user, const Command& command, ssh_key_cmd_rec& record) {
    KeyPairOutcome outcome{SECURITY_ERR_KEY_PAIR, 0, false};
    const auto end = Clock::now() + command.limit;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return outcome;  // an outcome always fits
    const Descriptor out(ends[0]);
    pid_t child;
    {
        const Descriptor in(ends[1]);
        child = fork_without_handlers();
        if (child == 0) {
            setsid();  // to be ended as one, without a terminal to ask for a passphrase at
            alarm(static_cast<unsigned>(command.limit.count()) +
                  1);  // should the daemon not be there to end it
            // No exception may unwind into the daemon's loop, of which this process has a copy.
            const auto work = [&]() noexcept {
                return KeyFolder(user, command.type, record, end).run(command.work);
            };
            outcome = work();
            _exit(write(in.get(), &outcome, sizeof outcome) == sizeof outcome ? 0 : 1);
        }
    }
    if (child < 0) return outcome;
    const Awaited awaited = await_child(out.get(), child, end + kReporting);
    KeyPairOutcome told;
    if (awaited == Awaited::kReadable && read(out.get(), &told, sizeof told) == sizeof told) outcome = told;
    end_child(child);
    if (outcome.status == SECURITY_ERR_KEY_PAIR) {
        const bool held = outcome.held || awaited == Awaited::kHeld;
        log_failure(record, command,
                    held                  ? "its process was stopped, and ended"
                    : Clock::now() >= end ? "it took too long"
                                          : "ssh-keygen or the home did not let it");
    }
    return outcome;
}

// An account that the daemon of this context made, and null for all others: key pairs in the homes of root,
// of the system's accounts and of other people's are not for this.
const passwd* managed_account(const char* name) {
    if (is_internal_user(name) == 1) return nullptr;
    const std::string stored = security_get_system_username(name);
    if (security_get_vdc_from_username(stored.c_str()) != sysmgrcmn_vdc_id_get()) return nullptr;
    const AccountNames found = find_account(stored.c_str());
    const passwd* account = found.known && found.passwd ? getpwnam(stored.c_str()) : nullptr;
    const bool managed =
        account != nullptr && account->pw_uid >= kFirstUser && home_of(stored.c_str()) == account->pw_dir;
    return managed ? account : nullptr;
}

template <size_t count>
uint32_t serve(const Command (&commands)[count], uint32_t operation, ssh_key_cmd_rec& record) {
    const auto* command = std::find_if(commands, commands + count, [&](const Command& c) {
        return c.kind == record.kind && c.operation == operation;
    });
    if (command == commands + count) return SECURITY_ERR_NOT_SUPPORTED;
    const passwd* user = managed_account(record.user_name);
    if (user == nullptr) return SECURITY_ERR_NO_USER;
    const KeyPairOutcome outcome = run_in_child(*user, *command, record);
    if (outcome.status == SECURITY_OK) record.value = outcome.bits;
    return outcome.status;
}

}  // namespace

uint32_t transfer_key_pair(uint32_t, uint32_t operation, void* record) {
    return serve(kTransfers, operation, *static_cast<ssh_key_cmd_rec*>(record));
}

uint32_t command_key_pair(uint32_t, uint32_t operation, void* record) {
    return serve(kCommands, operation, *static_cast<ssh_key_cmd_rec*>(record));
}

}  // namespace quill
