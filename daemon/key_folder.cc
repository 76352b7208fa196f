#include "daemon/key_folder.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/secret_bytes.h"
#include "daemon/await_child.h"
#include "daemon/private_key.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kKeygen[] = "/usr/bin/ssh-keygen";
constexpr char kFolder[] = ".ssh";
constexpr size_t kLargestFile = 65535;  // longer than any key
constexpr size_t kMostPrinted = 65536;  // a full buffer is a failure
constexpr size_t kLongestName = 64;

// How the names of the files begin that ssh(1), sshd(8) and a login read in the folder.
constexpr std::string_view kReadNames[] = {"authorized_", "config", "environment", "id_",
                                           "identity",    "known_", "rc"};

bool read_file(const char* path, SecretBytes& bytes, int flags) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
    return file && read_regular_file(file.get(), kLargestFile, bytes);
}

bool write_new_file(const std::string& path, std::string_view bytes, mode_t mode) {
    NewFile file(path, mode);
    return file && file.write(bytes) && file.sync() && file.keep();
}

// A new folder with a unique name, in which a pair is made before it is renamed to its place, so that files
// of the user neither prevent that nor are overwritten. The destructor removes the folder and the files in
// it.
class Draft {
 public:
    Draft() { made_ = mkdtemp(folder_) != nullptr; }
    ~Draft() {
        if (!made_) return;
        unlink(key().c_str());
        unlink(public_key().c_str());
        rmdir(folder_);
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;

    bool made() const { return made_; }
    std::string key() const { return std::string(folder_) + "/key"; }
    std::string public_key() const { return key() + ".pub"; }

    // Puts both files of the pair in place, or none. The caller has checked that there is no private key, so
    // a public key that exists belongs to none, and is replaced.
    uint32_t take_place(const KeyType& type) const {
        if (rename(key().c_str(), type.path) != 0) return SECURITY_ERR_KEY_PAIR;
        if (rename(public_key().c_str(), type.public_path) == 0) return SECURITY_OK;
        unlink(type.path);
        return SECURITY_ERR_KEY_PAIR;
    }

 private:
    char folder_[sizeof "new-XXXXXX"] = "new-XXXXXX";
    bool made_;
};

// Opens a folder that belongs to the user and is not a symbolic link.
Descriptor open_own_folder(int around, const char* path, uid_t user) {
    Descriptor folder(openat(around, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts;
    if (!folder || fstat(folder.get(), &facts) != 0 || facts.st_uid != user) return Descriptor();
    return folder;
}

}  // namespace

bool KeyFolder::become_user() const {
    return initgroups(user_.pw_name, user_.pw_gid) == 0 &&
           setresgid(user_.pw_gid, user_.pw_gid, user_.pw_gid) == 0 &&
           setresuid(user_.pw_uid, user_.pw_uid, user_.pw_uid) == 0;
}

bool KeyFolder::enter(bool make) {
    if (inside_) return true;
    const Descriptor home = open_own_folder(AT_FDCWD, user_.pw_dir, user_.pw_uid);
    if (!home) return false;
    if (make) mkdirat(home.get(), kFolder, 0700);
    const Descriptor folder = open_own_folder(home.get(), kFolder, user_.pw_uid);
    inside_ = folder && fchdir(folder.get()) == 0;
    return inside_;
}

bool KeyFolder::has(const char* name) const {
    struct stat facts;
    return inside_ && lstat(name, &facts) == 0;
}

// Runs ssh-keygen and sets `printed` to its output. Returns whether it succeeded.
template <class... Words>
bool KeyFolder::keygen(std::string& printed, Words... words) {
    Child child = Child::run({.words = {kKeygen, words...},
                              .capture = Program::kOutput,
                              .most_output = kMostPrinted,
                              .dies_with_parent = true});
    stopped_ = await_child(child, end_) == Awaited::kStopped || stopped_;
    child.end();
    printed = child.result().output;
    return child.result().ok() && printed.size() < kMostPrinted;
}

// Returns the number at the start of ssh-keygen's "2048 SHA256:... amy (RSA)", or 0 if there is no pair. The
// file is read first, because ssh-keygen would wait for the writer of a pipe.
uint32_t KeyFolder::bits() {
    SecretBytes public_key;
    std::string listing;
    uint32_t number = 0;
    if (has(type_.path) && read_file(type_.public_path, public_key, O_NOFOLLOW) &&
        keygen(listing, "-l", "-f", type_.public_path))
        std::from_chars(listing.data(), listing.data() + listing.size(), number);
    return number;
}

KeyPairOutcome KeyFolder::run(KeyPairWork work) {
    umask(022);
    if (!become_user()) return {SECURITY_ERR_KEY_PAIR, 0, false};
    if (!open_own_folder(AT_FDCWD, user_.pw_dir, user_.pw_uid)) return {SECURITY_ERR_NO_USER, 0, false};
    enter(false);
    const uint32_t status = (this->*work)();
    const uint32_t bits_now = status == SECURITY_OK ? bits() : 0;
    return {status, bits_now, stopped_};
}

uint32_t KeyFolder::generate() {
    const uint32_t bits = command_.value == 0 ? type_.default_bits : command_.value;
    if (bits < type_.least_bits || bits > type_.most_bits) return SECURITY_ERR_NOT_SUPPORTED;
    if (has(type_.path)) return SECURITY_ERR_KEY_PAIR_EXISTS;
    if (!enter(true)) return SECURITY_ERR_KEY_PAIR;
    const Draft draft;
    std::string printed;
    return draft.made() && keygen(printed, "-q", "-t", type_.name, "-b", std::to_string(bits).c_str(), "-N",
                                  "", "-C", command_.user_name, "-f", draft.key().c_str())
               ? draft.take_place(type_)
               : SECURITY_ERR_KEY_PAIR;
}

// Returns the line of the public key, with the user's name as its comment: the comment in a private key may
// be any bytes, also line breaks. Returns "" for a key of another type.
std::string KeyFolder::public_line(std::string_view printed) const {
    if (!printed.starts_with(type_.line)) return "";
    const std::string_view key = printed.substr(0, printed.find_first_of(" \n", strlen(type_.line)));
    if (!is_base64(key.substr(strlen(type_.line)))) return "";
    return std::string(key) + " " + command_.user_name + "\n";
}

uint32_t KeyFolder::import_pair() {
    if (*command_.first_text != '\0') return SECURITY_ERR_NOT_SUPPORTED;
    if (has(type_.path)) return SECURITY_ERR_KEY_PAIR_EXISTS;
    SecretBytes bytes;
    if (*command_.second_text != '/' || !read_file(command_.second_text, bytes, 0))
        return SECURITY_ERR_FILE_OPEN;
    const SecretBytes block = private_key_block(view(bytes));
    if (block.empty()) return SECURITY_ERR_SSHKEY_FORMAT;
    if (!enter(true)) return SECURITY_ERR_KEY_PAIR;
    const Draft draft;
    if (!draft.made() || !write_new_file(draft.key(), view(block), 0600)) return SECURITY_ERR_KEY_PAIR;
    std::string printed;  // the public key
    const bool read = keygen(printed, "-y", "-P", "", "-f", draft.key().c_str());
    const std::string line = read ? public_line(printed) : "";
    if (stopped_ || passed(end_)) return SECURITY_ERR_KEY_PAIR;
    if (line.empty()) return SECURITY_ERR_SSHKEY_FORMAT;
    return write_new_file(draft.public_key(), line, 0644) ? draft.take_place(type_) : SECURITY_ERR_KEY_PAIR;
}

// Sets `name` to the name of the exported file, which the command gives alone or behind the folder's path.
// Returns false if a file must not be written under it.
bool KeyFolder::exported_name(std::string& name) const {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    const std::string folder = std::string(user_.pw_dir) + "/" + kFolder + "/";
    name = command_.second_text;
    if (name.starts_with(folder)) name.erase(0, folder.size());
    const auto is_start = [&](std::string_view read) { return name.starts_with(read); };
    return !name.empty() && name.size() <= kLongestName && name.find_first_not_of(kPlain) == name.npos &&
           name.front() != '.' && name.front() != '-' && std::ranges::none_of(kReadNames, is_start);
}

uint32_t KeyFolder::export_pair() {
    if (*command_.first_text != '\0') return SECURITY_ERR_NOT_SUPPORTED;
    SecretBytes private_key, public_key;
    if (!inside_ || !read_file(type_.path, private_key, O_NOFOLLOW) ||
        !read_file(type_.public_path, public_key, O_NOFOLLOW))
        return SECURITY_ERR_NOT_FOUND;
    std::string name;
    if (!exported_name(name) || !write_new_file(name, view(private_key), 0600)) return SECURITY_ERR_FILE_OPEN;
    if (write_new_file(name + ".pub", view(public_key), 0644)) return SECURITY_OK;
    unlink(name.c_str());
    return SECURITY_ERR_FILE_OPEN;
}

uint32_t KeyFolder::remove() {
    if (!has(type_.path)) return SECURITY_ERR_NOT_FOUND;
    if (unlink(type_.path) != 0) return SECURITY_ERR_KEY_PAIR;
    unlink(type_.public_path);
    return SECURITY_OK;
}

}  // namespace quill
