// Each command for a key pair is executed by a child process with the user's rights (daemon/key_folder.h),
// for which the daemon waits. The user can send signals to that child, so there is a time limit, and a child
// that is stopped is killed at once.
#include "daemon/key_pairs.h"

#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "daemon/account_files.h"
#include "daemon/await_child.h"
#include "daemon/homes.h"
#include "daemon/key_folder.h"
#include "platform/service.h"
#include "quillplatform/sysmgr.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uid_t kFirstUser = 1000;  // lower ones are accounts of the system
constexpr std::chrono::seconds kGenerating(60);
constexpr std::chrono::seconds kAnythingElse(5);
constexpr std::chrono::seconds kReporting(1);  // more, in which a child can report that it took too long

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

void log_failure(const ssh_key_cmd_rec& record, const Command& command, const char* reason) {
    syslog(LOG_ERR, "the %s key pair of %s: command %u failed: %s", command.type.name,
           log_safe(record.user_name).c_str(), record.kind, reason);
}

// Returns SECURITY_ERR_KEY_PAIR if the child dies, is stopped or takes too long.
KeyPairOutcome run_in_child(const passwd& user, const Command& command, ssh_key_cmd_rec& record) {
    KeyPairOutcome outcome{SECURITY_ERR_KEY_PAIR, 0, false};
    const Deadline end = after(command.limit);
    Child child = Child::call_with_output(sizeof outcome, [&](int output) {
        setsid();                                                 // no terminal to ask for a passphrase at
        alarm(static_cast<unsigned>(command.limit.count()) + 1);  // ends this process if the daemon does not
        outcome = KeyFolder(user, command.type, record, end).run(command.work);
        return write(output, &outcome, sizeof outcome) == sizeof outcome ? 0 : 1;
    });
    const Awaited awaited = await_child(child, end + kReporting);
    child.end();
    const std::string& reported = child.result().output;
    if (reported.size() == sizeof outcome) memcpy(&outcome, reported.data(), sizeof outcome);
    if (outcome.status == SECURITY_ERR_KEY_PAIR) {
        const bool stopped = outcome.stopped || awaited == Awaited::kStopped;
        log_failure(record, command,
                    stopped       ? "its process was stopped, and was killed"
                    : passed(end) ? "it took too long"
                                  : "ssh-keygen failed, or the home does not permit it");
    }
    return outcome;
}

// Returns the account if it belongs to the daemon of this context, else null: no other account, such as root
// or one of the system, has key pairs here.
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
