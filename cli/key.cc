// quillsec key: the SSH public key of a user, from a file of any common kind to one line of OpenSSH text.
#include "cli/key.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "cli/command.h"
#include "cli/exchange.h"
#include "cli/key_listing.h"
#include "cli/terminal.h"
#include "cli/words.h"
#include "common/file_location.h"
#include "common/text_field.h"
#include "common/wiped.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

constexpr const char* kFormats[] = {"openssh", "ssh2", "x509-pem", "x509v3-sign-rsa"};

std::string object(const std::string& user) { return fmt::format("SSH key of user '{}'", user); }

// ---- The daemon's records

template <class Record>
Record record_of(const std::string& user) {
    Record record{};
    if (user.empty() || user.size() >= sizeof record.user_name) {
        throw Failure{Exit::kInvalidValue, object(user),
                      fmt::format("{}: the name is not valid", object(user)),
                      fmt::format("use 1 to {} bytes", sizeof record.user_name - 1)};
    }
    std::copy(user.begin(), user.end(), record.user_name);
    return record;
}

// With the texts of the reply ended, whoever sent it.
template <class Record>
uint32_t ask(security_request_type type, uint32_t operation, Record& record) {
    const uint32_t status = cli::ask(type, operation, &record, sizeof record);
    terminate(record.user_name);
    terminate(record.key_text);
    return status;
}

// A user's key as it is stored, and as a line, which is empty where it cannot be one.
struct Key {
    std::string user;
    uint8_t format;
    std::string line;
};

std::string first_line(const char* text) {
    std::string line(text, strcspn(text, "\r\n"));
    return line.erase(line.find_last_not_of(" \t") + 1);
}

Key key_of(const ssh_key_rec& record) {
    return {record.user_name, SSHKEY_FMT_OPENSSH, first_line(record.key_text)};
}

Key key_of(ssh_key_new_rec& record) {
    ssh_key_rec line{};
    const uint8_t format = record.key_format;
    const bool converted = convert_other_ssh_key_to_openssh(&record, &line) == SECURITY_OK;
    return {record.user_name, format, converted ? first_line(line.key_text) : ""};
}

template <class Record>
void add_all(std::vector<Key>& keys) {
    Record record{};
    uint32_t status;
    while ((status = ask(SECURITY_USER_LOOKUP_REQUEST, GETNEXT_REQ, record)) == SECURITY_OK)
        keys.push_back(key_of(record));
    if (status != SECURITY_ERR_END_OF_TABLE) require_success(status, "SSH keys", "read");
}

std::vector<Key> all_keys() {
    std::vector<Key> keys;
    add_all<ssh_key_rec>(keys);
    add_all<ssh_key_new_rec>(keys);
    std::ranges::sort(keys, {}, &Key::user);
    return keys;
}

Key stored_key(const std::string& user) {
    auto record = record_of<ssh_key_rec>(user);
    uint32_t status = ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, record);
    if (status == SECURITY_OK) return key_of(record);
    if (status != SECURITY_ERR_NOT_FOUND) require_success(status, object(user), "read");
    auto other = record_of<ssh_key_new_rec>(user);
    status = ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, other);
    require_success(status, object(user), "read");
    return key_of(other);
}

// ---- show, export, delete

std::vector<Cell> row(const Key& key) {
    const auto listing = key.line.empty() ? std::nullopt : listed(key.line);
    const Cell format =
        key.format < std::size(kFormats) ? Cell(kFormats[key.format]) : Cell(uint32_t{key.format});
    if (!listing) return {key.user, {nullptr, "unknown"}, {nullptr, ""}, {nullptr, ""}, format};
    return {key.user, listing->type, listing->bits, listing->fingerprint, format};
}

Table table_of(const std::vector<Key>& keys) {
    Table table{"keys", {"user", "type", "bits", "fingerprint", "format"}, {}};
    for (const Key& key : keys) table.rows.push_back(row(key));
    return table;
}

Answer show(const Arguments& arguments) {
    const std::string* user = arguments.find("USER");
    return table_of(user ? std::vector{stored_key(*user)} : all_keys());
}

Answer export_line(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    const Key key = stored_key(user);
    if (key.line.empty()) require_success(SECURITY_ERR_SSHKEY_CONVERT, object(user), "convert");
    return Remark{"key", {key.line, printable(key.line)}};
}

// A user has a key in one format at most, and nobody needs to know in which.
Answer remove(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    auto line = record_of<ssh_key_rec>(user);
    auto file = record_of<ssh_key_new_rec>(user);
    uint32_t status = ask(SECURITY_SSHKEY_FILE_REQUEST, DEL_REQ, line);
    if (status == SECURITY_OK || status == SECURITY_ERR_NOT_FOUND) {
        const uint32_t other = ask(SECURITY_SSHKEY_FILE_REQUEST, DEL_REQ, file);
        if (status != SECURITY_OK || other != SECURITY_ERR_NOT_FOUND) status = other;
    }
    require_success(status, object(user), "delete");
    return Remark{"deleted", {user, printable(fmt::format("{}: deleted", object(user)))}};
}

// ---- add

struct KeyFile {
    std::string name;  // as it was given
    int32_t location;
    char path[kFilePath] = {};        // as the library wants it
    char whole_path[kFilePath] = {};  // as the system knows it

    bool temporary() const { return location == SECURITY_LOCATION_TEMPORARY; }
    std::string object() const { return fmt::format("file '{}'", name); }
};

Failure refused(const KeyFile& file, const std::string& what, std::string remedy) {
    return {Exit::kInvalidValue, file.object(), fmt::format("{}: {}", file.object(), what),
            std::move(remedy)};
}

KeyFile file_named(const std::string& name) {
    KeyFile file{name, SECURITY_LOCATION_TEMPORARY};
    const auto too_long = [&] { return refused(file, "the name is too long", "copy it to a shorter one"); };
    if (name.starts_with('/')) {
        if (name.size() >= sizeof file.path) throw too_long();
        name.copy(file.path, sizeof file.path);
        name.copy(file.whole_path, sizeof file.whole_path);
        return file;
    }
    char device_name[256], path[256];
    if (vsh_xml_parse_uri(name.c_str(), device_name, path) != 0) throw too_long();
    const auto* device = std::ranges::find_if(
        kDevices, [&](const Device& known) { return strcmp(known.name, device_name) == 0; });
    if (device == std::end(kDevices)) {
        throw refused(file, "it is not named by a device of this system or a path from the root",
                      "use bootflash:PATH, volatile:PATH, slot0:PATH or /PATH");
    }
    file.location = device->location_type;
    file.path[0] = '/';
    std::string(path).copy(file.path + 1, sizeof file.path - 2);
    char looked_up[kFilePath];
    memcpy(looked_up, file.path, sizeof looked_up);
    complete_path(*device, looked_up, file.whole_path);
    return file;
}

// Words for a file that was refused: near its start a private key can be seen.
bool shows_private_key(const char* path) {
    Wiped<std::array<char, 65536>> start;
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    const ssize_t got = read(file, start.data(), start.size());
    close(file);
    const std::string_view text(start.data(), got > 0 ? static_cast<size_t>(got) : 0);
    return text.find("PRIVATE KEY ----") != text.npos || text.find("PRIVATE KEY-----") != text.npos;
}

void check_line(const KeyFile& file, const ssh_key_rec& record) {
    if (strpbrk(record.key_text, "\r\n") == nullptr && strlen(record.key_text) + 1 >= 2100) {
        throw refused(file, "its line is longer than 2098 characters", "use a key of fewer bits");
    }
    if (!listed(first_line(record.key_text))) {
        throw refused(file, "its first line holds no key, and no other line is read",
                      "put the key into the first line");
    }
}

void check_text(const KeyFile& file, ssh_key_new_rec& record) {
    if (key_of(record).line.empty()) {
        throw refused(file, "its key cannot be made a line of OpenSSH text",
                      "use an RSA or DSA key, or one in OpenSSH's own format");
    }
}

// The library reads the file again; what it would refuse, or take although nobody could log in with it, is
// said here, in words and while the file is still there.
void check(const KeyFile& file, const std::string& user) {
    auto line = record_of<ssh_key_rec>(user);
    auto text = record_of<ssh_key_new_rec>(user);
    uint8_t format = SSHKEY_FMT_OPENSSH;
    const uint32_t status = copy_sshkey_file_content(file.whole_path, user.c_str(), &line, &text, &format);
    if (status == SECURITY_ERR_FILE_OPEN && access(file.whole_path, R_OK) == 0) {
        throw refused(file, fmt::format("'{}' is no regular file of a plain name", file.whole_path),
                      "use up to 62 letters, digits and of ./_-+,:=@%#~");
    }
    if (status == SECURITY_ERR_SSHKEY_FORMAT && shows_private_key(file.whole_path)) {
        throw refused(file, "it holds a private key", "give the public half; ssh-keygen -y tells it");
    }
    require_success(status, file.object(), "read");
    if (format == SSHKEY_FMT_OPENSSH)
        check_line(file, line);
    else
        check_text(file, text);
}

void confirm(const KeyFile& file) {
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

Answer add(const Arguments& arguments) {
    const std::string& user = arguments["USER"];
    KeyFile file = file_named(arguments["FILE"]);
    check(file, user);
    // Before a file is deleted: is there somebody to take its key?
    auto known = record_of<ssh_key_rec>(user);
    const uint32_t found = ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, known);
    if (found != SECURITY_ERR_NOT_FOUND) require_success(found, object(user), "change");
    if (file.temporary() && !arguments.has("--yes")) confirm(file);
    const uint32_t status =
        status_of(security_sshkey_send(file.path, user.c_str(), file.location, SET_REQ, 0));
    const bool deleted = file.temporary() && access(file.whole_path, F_OK) != 0;
    require_success(status, deleted ? fmt::format("{} (its file is deleted)", object(user)) : object(user),
                    "change");
    try {
        return table_of({stored_key(user)});
    } catch (Failure& failure) {
        failure.text = fmt::format("{}: added, but cannot be shown", object(user));
        throw;
    }
}

std::string notes() {
    return "A user has one key; adding replaces it. FILE is bootflash:PATH, volatile:PATH or slot0:PATH, or "
           "a\n"
           "path from the root, which is taken for a temporary copy: that file is DELETED once it is read, "
           "and\n"
           "whatever became of it. So it is asked for first, or takes --yes. A key may be OpenSSH's (its "
           "first\n"
           "line alone is read), SSH2's, a PEM certificate of RSA or DSA, or a text that begins with\n"
           "x509v3-sign-rsa. Private keys are refused, and not deleted.\n\n"
           "export gives the key as one line for authorized_keys, whatever its file was.\n\n"
           "With --json: {\"keys\": [{\"user\", \"type\", \"bits\", \"fingerprint\", \"format\"}, ...]}, "
           "where "
           "type,\n"
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
     add},
    {"export", "show the key as one line of OpenSSH text", {{"USER", "the user"}}, export_line},
    {"delete", "take the key from a user", {{"USER", "the user"}}, remove},
};
}  // namespace

void check_key_file(const std::string& name, const std::string& user) {
    const KeyFile file = file_named(name);
    if (!file.temporary()) check(file, user);
}

const Noun kKey{"key", "SSH public keys of users", notes, kVerbs};

}  // namespace quill::cli
