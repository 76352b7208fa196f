#include "daemon/key_folder.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <string>

#include "base/descriptor.h"
#include "base/secret_bytes.h"
#include "daemon/private_key.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kKeygen[] = "/usr/bin/ssh-keygen";
constexpr char kFolder[] = ".ssh";
constexpr size_t kLargestFile = 65536;  // more than any key takes
constexpr size_t kLongestName = 64;

// How the names begin that ssh(1), sshd(8) and a login read in the folder.
constexpr std::string_view kReadNames[] = {"authorized_", "config", "environment", "id_",
                                           "identity",    "known_", "rc"};

// Reads on to the end; false where that fails or the bytes are full before. `ready` says when there is more.
template <class Ready>
bool read_all(int descriptor, SecretBytes& bytes, Ready ready) {
    size_t used = 0;
    bytes.resize(kLargestFile);
    while (used < bytes.size() && ready()) {
        const ssize_t got = read(descriptor, bytes.data() + used, bytes.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) {
            bytes.resize(used);
            return true;
        }
        used += static_cast<size_t>(got);
    }
    return false;
}

bool read_file(const char* path, SecretBytes& bytes, int flags) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
    struct stat facts;
    return file && fstat(file.get(), &facts) == 0 && S_ISREG(facts.st_mode) &&
           read_all(file.get(), bytes, [] { return true; });
}

// Writes a file that was not there before; nothing is left of it where that fails.
bool write_new_file(const std::string& path, std::string_view bytes, mode_t mode) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file) return false;
    const ssize_t written = write(file.get(), bytes.data(), bytes.size());
    if (written == static_cast<ssize_t>(bytes.size()) && fsync(file.get()) == 0) return true;
    unlink(path.c_str());
    return false;
}

std::string_view view(const SecretBytes& bytes) { return {bytes.data(), bytes.size()}; }

[[noreturn]] void become_keygen(const char* const* arguments, int output, unsigned seconds) {
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    alarm(seconds);  // lasts through exec, should nobody be there to end it
    char* const environment[] = {nullptr};
    execve(kKeygen, const_cast<char* const*>(arguments), environment);
    _exit(127);
}

// A new folder with a unique name in which a pair is made before it is renamed to its place, so that no file of
// the user's is in the way or overwritten. It is removed with what is left in it.
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

    // Both or none; a public key that nobody has the private half of is replaced.
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

// A folder of the user's own, not behind a link.
Descriptor own_folder(int around, const char* path, uid_t user) {
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
    const Descriptor home = own_folder(AT_FDCWD, user_.pw_dir, user_.pw_uid);
    if (!home) return false;
    if (make) mkdirat(home.get(), kFolder, 0700);
    const Descriptor folder = own_folder(home.get(), kFolder, user_.pw_uid);
    inside_ = folder && fchdir(folder.get()) == 0;
    return inside_;
}

bool KeyFolder::has(const char* name) const {
    struct stat facts;
    return inside_ && lstat(name, &facts) == 0;
}

// Runs ssh-keygen; whether it succeeded, and what it printed.
template <class... Words>
bool KeyFolder::keygen(SecretBytes& printed, Words... words) {
    const char* const arguments[] = {"ssh-keygen", words..., nullptr};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const Descriptor out(ends[0]);
    const auto left = std::chrono::ceil<std::chrono::seconds>(end_ - Clock::now()).count();
    pid_t child;
    {
        const Descriptor in(ends[1]);
        child = fork();
        if (child == 0)
            become_keygen(arguments, in.get(), static_cast<unsigned>(std::max(left, decltype(left){1})));
    }
    if (child < 0) return false;
    Awaited awaited = Awaited::kReadable;
    const bool read = read_all(out.get(), printed, [&] {
        awaited = await_child(out.get(), child, end_);
        return awaited == Awaited::kReadable;
    });
    if (!read) kill(child, SIGKILL);
    held_ = held_ || awaited == Awaited::kHeld;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return read && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// "2048 SHA256:... amy (RSA)"; 0 where there is no pair. ssh-keygen would wait for a pipe's writer.
uint32_t KeyFolder::bits() {
    SecretBytes public_key, listing;
    uint32_t number = 0;
    if (has(type_.path) && read_file(type_.public_path, public_key, O_NOFOLLOW) &&
        keygen(listing, "-l", "-f", type_.public_path))
        std::from_chars(listing.data(), listing.data() + listing.size(), number);
    return number;
}

KeyPairOutcome KeyFolder::run(KeyPairWork work) {
    umask(022);
    if (!become_user()) return {SECURITY_ERR_KEY_PAIR, 0, false};
    if (!own_folder(AT_FDCWD, user_.pw_dir, user_.pw_uid)) return {SECURITY_ERR_NO_USER, 0, false};
    enter(false);
    const uint32_t status = (this->*work)();
    const uint32_t there = status == SECURITY_OK ? bits() : 0;
    return {status, there, held_};
}

uint32_t KeyFolder::generate() {
    const uint32_t bits = command_.value == 0 ? type_.default_bits : command_.value;
    if (bits < type_.least_bits || bits > type_.most_bits) return SECURITY_ERR_NOT_SUPPORTED;
    if (has(type_.path)) return SECURITY_ERR_KEY_PAIR_EXISTS;
    if (!enter(true)) return SECURITY_ERR_KEY_PAIR;
    const Draft draft;
    SecretBytes printed;
    return draft.made() && keygen(printed, "-q", "-t", type_.name, "-b", std::to_string(bits).c_str(), "-N",
                                  "", "-C", command_.user_name, "-f", draft.key().c_str())
               ? draft.take_place(type_)
               : SECURITY_ERR_KEY_PAIR;
}

// The line of the public half with the user's name for a comment: the one in a private key can be any bytes,
// line breaks among them. Empty for a key of another type.
SecretBytes KeyFolder::public_line(const SecretBytes& printed) const {
    std::string_view key = view(printed);
    if (!key.starts_with(type_.line)) return {};
    key = key.substr(0, key.find_first_of(" \n", strlen(type_.line)));
    if (!is_base64(key.substr(strlen(type_.line)))) return {};
    const std::string line = std::string(key) + " " + command_.user_name + "\n";
    return SecretBytes(line.begin(), line.end());
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
    SecretBytes printed;  // the public half
    const bool read = keygen(printed, "-y", "-P", "", "-f", draft.key().c_str());
    const SecretBytes line = read ? public_line(printed) : SecretBytes();
    if (held_ || Clock::now() >= end_) return SECURITY_ERR_KEY_PAIR;
    if (line.empty()) return SECURITY_ERR_SSHKEY_FORMAT;
    return write_new_file(draft.public_key(), view(line), 0644) ? draft.take_place(type_)
                                                                : SECURITY_ERR_KEY_PAIR;
}

// The name in the folder that the command means, by itself or behind the folder's path.
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
