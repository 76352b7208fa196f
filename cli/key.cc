// quillsec key: the SSH public keys of users. They are read from files of several formats and exported as a
// line of OpenSSH text.
#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <iterator>

#include "cli/command.h"
#include "cli/key_file.h"
#include "cli/key_listing.h"
#include "cli/stored_key.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

constexpr const char* kFormats[] = {"openssh", "ssh2", "x509-pem", "x509v3-sign-rsa"};

std::vector<Cell> row(const StoredKey& key) {
    const auto listing = key.line.empty() ? std::nullopt : list_key(key.line);
    const Cell format =
        key.format < std::size(kFormats) ? Cell(kFormats[key.format]) : Cell(uint32_t{key.format});
    if (!listing) return {key.user, {nullptr, "unknown"}, {nullptr, ""}, {nullptr, ""}, format};
    return {key.user, listing->type, listing->bits, listing->fingerprint, format};
}

Table table_of(const std::vector<StoredKey>& keys) {
    Table table{"keys", {"user", "type", "bits", "fingerprint", "format"}, {}};
    for (const StoredKey& key : keys) table.rows.push_back(row(key));
    return table;
}

Answer show(const Arguments& arguments) {
    const std::string* user = arguments.find("USER");
    return table_of(user ? std::vector{stored_key(*user)} : stored_keys());
}

Answer export_line(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    const StoredKey key = stored_key(user);
    if (key.line.empty()) require_success(SECURITY_ERR_SSHKEY_CONVERT, key_object(user), "convert");
    return Remark{"key", {key.line, printable(key.line)}};
}

// A user has at most one key, in either of two formats; both are deleted.
Answer remove(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    auto line = key_record_of<ssh_key_rec>(user);
    auto file = key_record_of<ssh_key_new_rec>(user);
    uint32_t status = ask_key(SECURITY_SSHKEY_FILE_REQUEST, DEL_REQ, line);
    if (status == SECURITY_OK || status == SECURITY_ERR_NOT_FOUND) {
        const uint32_t other = ask_key(SECURITY_SSHKEY_FILE_REQUEST, DEL_REQ, file);
        if (status != SECURITY_OK || other != SECURITY_ERR_NOT_FOUND) status = other;
    }
    require_success(status, key_object(user), "delete");
    return Remark{"deleted", {user, printable(fmt::format("{}: deleted", key_object(user)))}};
}

void confirm(const NamedFile& file) {
    const Terminal terminal;
    if (!terminal.found()) {
        throw Failure{
            Exit::kUsage, file.object(),
            fmt::format("{}: it is deleted once it is read, and there is no terminal to ask whether "
                        "that is meant",
                        file.object()),
            "add --yes, or name it by its device"};
    }
    const std::string question = fmt::format("{} is deleted once it is read; go on?", file.object());
    if (!terminal.confirms(printable(question))) {
        throw Failure{Exit::kFailed, file.object(),
                      fmt::format("{}: nothing was read or deleted", file.object()),
                      "answer yes, or name it by its device"};
    }
}

// A temporary copy is deleted also if its key is refused.
void send(KeyFile& key, const NamedFile& file, const std::string& user) {
    const uint32_t status = key.send();
    const char* fate = "";
    if (!file.on_device) {
        try {
            key.remove();
            fate = " (its file is deleted)";
        } catch (Failure& failure) {
            failure.text += "; its key is added, and the file not deleted";
            if (status == SECURITY_OK) throw;
        }
    }
    require_success(status, key_object(user) + fate, "change");
}

// Everything is checked before a file is deleted.
Answer add(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    auto known = key_record_of<ssh_key_rec>(user);
    if (vdc_getpwnam(user.c_str()) == nullptr) {
        throw Failure{Exit::kNoSuchObject, key_object(user),
                      fmt::format("{}: there is no such user", key_object(user)),
                      "check how the name is spelled, or create the user with 'quillsec user add'"};
    }
    const NamedFile file = key_file_named(arguments["FILE"]);
    KeyFile key(file, user);
    const uint32_t found = ask_key(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, known);
    if (found != SECURITY_ERR_NOT_FOUND) require_success(found, key_object(user), "change");
    if (!file.on_device && !arguments.has("--yes")) confirm(file);
    send(key, file, user);
    try {
        return table_of({stored_key(user)});
    } catch (Failure& failure) {
        failure.text = fmt::format("{}: added, but cannot be shown", key_object(user));
        throw;
    }
}

std::string notes() {
    return "A user has one key; adding replaces it. FILE is bootflash:PATH, volatile:PATH or slot0:PATH, or an\n"
           "absolute path, which names a temporary copy: that file is DELETED after it was read, even if its\n"
           "key is refused. So add asks first, or takes --yes. A file must be a regular one of at most 65536\n"
           "bytes, and not behind a symbolic link that others could have made. Its format is OpenSSH (only\n"
           "the first line is read), SSH2, a PEM certificate of RSA or DSA, or a text that begins with\n"
           "x509v3-sign-rsa. Private keys are refused, and not deleted.\n\n"
           "export prints the key as one line for authorized_keys, in whatever format it was added.\n\n"
           "With --json: {\"keys\": [{\"user\", \"type\", \"bits\", \"fingerprint\", \"format\"}, ...]}, "
           "where type,\n"
           "  bits and fingerprint are null for a key that ssh-keygen does not know; from export\n"
           "  {\"key\": the line}, from delete {\"deleted\": the user}.";
}

constexpr Verb kVerbs[] = {
    {"show", "show all keys, or that of one user", {{"USER", "the user", Argument::kOptional}}, show},
    {"add",
     "give a user the public key of a file",
     {{"USER", "the user"},
      {"FILE", "DEVICE:PATH, or a path from the root"},
      {"--yes", "do not ask before a file is deleted", Argument::kFlag}},
     add,
     kNeedsDaemon},
    {"export", "show the key as one line of OpenSSH text", {{"USER", "the user"}}, export_line},
    {"delete", "delete the key of a user", {{"USER", "the user"}}, remove},
};
}  // namespace

const Noun kKey{"key", "SSH public keys of users", notes, kVerbs};

}  // namespace quill::cli
