// What lies in a user's home is the user's to arrange: a link or a pipe there must not lead root anywhere. So
// a child takes on the user's rights before it touches anything, and tells the daemon what came of it.
// ssh-keygen runs below that child, without a shell.
#include "daemon/key_pairs.h"

#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "platform/service.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kKeygen[] = "/usr/bin/ssh-keygen";
constexpr unsigned kSeconds = 60;       // for one command, while the daemon does nothing else
constexpr size_t kLargestFile = 65536;  // more than any key takes
constexpr uid_t kFirstUser = 1000;      // below are the system's own accounts

struct Type {
    const char* name;  // as ssh-keygen takes it
    const char* line;  // how a public key of it begins
    const char* path;
    const char* public_path;
    uint32_t default_bits, least_bits, most_bits;
};

constexpr Type kRsa{"rsa", "ssh-rsa ", ".ssh/id_rsa", ".ssh/id_rsa.pub", 2048, 1024, 4096};
constexpr Type kDsa{"dsa", "ssh-dss ", ".ssh/id_dsa", ".ssh/id_dsa.pub", 1024, 1024, 1024};

// ---- In the child, with the user's rights, in the user's home

struct File {
    explicit File(int opened) : descriptor(opened) {}
    ~File() {
        if (descriptor >= 0) close(descriptor);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    const int descriptor;
};

// Bytes of a private key, perhaps; wiped when done with.
struct Bytes : std::vector<char> {
    using vector::vector;
    ~Bytes() { OPENSSL_cleanse(data(), size()); }
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
};

bool is_there(const char* path) {
    struct stat facts;
    return lstat(path, &facts) == 0;
}

// Reads to the end or until the bytes are full, which counts as failure.
bool read_all(int descriptor, Bytes& bytes) {
    size_t used = 0;
    bytes.resize(kLargestFile);
    while (used < bytes.size()) {
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

bool read_file(const char* path, Bytes& bytes) {
    const File file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat facts;
    return file.descriptor >= 0 && fstat(file.descriptor, &facts) == 0 && S_ISREG(facts.st_mode) &&
           read_all(file.descriptor, bytes);
}

// Writes a file that was not there before; nothing is left of it where that fails.
bool write_new_file(const char* path, const Bytes& bytes, mode_t mode) {
    const File file(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (file.descriptor < 0) return false;
    const ssize_t written = write(file.descriptor, bytes.data(), bytes.size());
    if (written == static_cast<ssize_t>(bytes.size()) && fsync(file.descriptor) == 0) return true;
    unlink(path);
    return false;
}

[[noreturn]] void become_keygen(const char* const* arguments, int output) {
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    alarm(kSeconds);  // lasts through exec
    char* const environment[] = {nullptr};
    execve(kKeygen, const_cast<char* const*>(arguments), environment);
    _exit(127);
}

// Runs ssh-keygen; whether it succeeded, and what it printed.
template <class... Words>
bool keygen(Bytes& printed, Words... words) {
    const char* const arguments[] = {"ssh-keygen", words..., nullptr};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const File out(ends[0]);
    pid_t child;
    {
        const File in(ends[1]);
        child = fork();
        if (child == 0) become_keygen(arguments, in.descriptor);
    }
    if (child < 0) return false;
    const bool read = read_all(out.descriptor, printed);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return read && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// "2048 SHA256:... amy (RSA)"; 0 where there is no pair. ssh-keygen would wait for a pipe's writer.
uint32_t bits_of(const Type& type) {
    Bytes public_key, listing;
    uint32_t bits = 0;
    if (is_there(type.path) && read_file(type.public_path, public_key) &&
        keygen(listing, "-l", "-f", type.public_path))
        std::from_chars(listing.data(), listing.data() + listing.size(), bits);
    return bits;
}

// Where a pair is made before it takes its place: a folder whose name nobody else has, so that nothing of the
// user's is in the way or in danger. What is left in it goes with it.
class Draft {
 public:
    Draft() {
        mkdir(".ssh", 0700);
        made_ = mkdtemp(folder_) != nullptr;
    }
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
    uint32_t take_place(const Type& type) const {
        if (rename(key().c_str(), type.path) != 0) return SECURITY_ERR_KEY_PAIR;
        if (rename(public_key().c_str(), type.public_path) == 0) return SECURITY_OK;
        unlink(type.path);
        return SECURITY_ERR_KEY_PAIR;
    }

 private:
    char folder_[sizeof ".ssh/new-XXXXXX"] = ".ssh/new-XXXXXX";
    bool made_;
};

uint32_t generate(const Type& type, ssh_key_cmd_rec& command) {
    const uint32_t bits = command.value == 0 ? type.default_bits : command.value;
    if (bits < type.least_bits || bits > type.most_bits) return SECURITY_ERR_NOT_SUPPORTED;
    if (is_there(type.path)) return SECURITY_ERR_KEY_PAIR_EXISTS;
    const Draft draft;
    Bytes printed;
    return draft.made() && keygen(printed, "-q", "-t", type.name, "-b", std::to_string(bits).c_str(), "-N",
                                  "", "-C", command.user_name, "-f", draft.key().c_str())
               ? draft.take_place(type)
               : SECURITY_ERR_KEY_PAIR;
}

uint32_t import(const Type& type, ssh_key_cmd_rec& command) {
    if (*command.first_text != '\0') return SECURITY_ERR_NOT_SUPPORTED;
    if (is_there(type.path)) return SECURITY_ERR_KEY_PAIR_EXISTS;
    Bytes bytes;
    if (*command.second_text != '/' || !read_file(command.second_text, bytes)) return SECURITY_ERR_FILE_OPEN;
    const Draft draft;
    if (!draft.made() || !write_new_file(draft.key().c_str(), bytes, 0600)) return SECURITY_ERR_KEY_PAIR;
    Bytes line;  // the public half, as ssh-keygen says it
    if (!keygen(line, "-y", "-P", "", "-f", draft.key().c_str()) || line.size() < strlen(type.line) ||
        memcmp(line.data(), type.line, strlen(type.line)) != 0)
        return SECURITY_ERR_SSHKEY_FORMAT;
    return write_new_file(draft.public_key().c_str(), line, 0644) ? draft.take_place(type)
                                                                  : SECURITY_ERR_KEY_PAIR;
}

uint32_t export_pair(const Type& type, ssh_key_cmd_rec& command) {
    if (*command.first_text != '\0') return SECURITY_ERR_NOT_SUPPORTED;
    Bytes private_key, public_key;
    if (!read_file(type.path, private_key) || !read_file(type.public_path, public_key))
        return SECURITY_ERR_NOT_FOUND;
    const char* path = command.second_text;
    if (*path != '/' || !write_new_file(path, private_key, 0600)) return SECURITY_ERR_FILE_OPEN;
    if (write_new_file((std::string(path) + ".pub").c_str(), public_key, 0644)) return SECURITY_OK;
    unlink(path);
    return SECURITY_ERR_FILE_OPEN;
}

uint32_t remove(const Type& type, ssh_key_cmd_rec&) {
    if (!is_there(type.path)) return SECURITY_ERR_NOT_FOUND;
    if (unlink(type.path) != 0) return SECURITY_ERR_KEY_PAIR;
    unlink(type.public_path);
    return SECURITY_OK;
}

uint32_t size(const Type&, ssh_key_cmd_rec&) { return SECURITY_OK; }  // which every command tells

struct Command {
    uint32_t kind, operation;
    const Type& type;
    uint32_t (*run)(const Type& type, ssh_key_cmd_rec& command);
};

constexpr Command kCommands[] = {
    {SECURITY_KEY_PAIR_GENERATE_RSA, SET_REQ, kRsa, generate},
    {SECURITY_KEY_PAIR_GENERATE_DSA, SET_REQ, kDsa, generate},
    {SECURITY_KEY_PAIR_DELETE_RSA, DEL_REQ, kRsa, remove},
    {SECURITY_KEY_PAIR_DELETE_DSA, DEL_REQ, kDsa, remove},
    {SECURITY_KEY_PAIR_SIZE_RSA, GET_REQ, kRsa, size},
    {SECURITY_KEY_PAIR_SIZE_DSA, GET_REQ, kDsa, size},
};

constexpr Command kTransfers[] = {
    {SECURITY_KEY_PAIR_IMPORT_RSA, SET_REQ, kRsa, import},
    {SECURITY_KEY_PAIR_IMPORT_DSA, SET_REQ, kDsa, import},
    {SECURITY_KEY_PAIR_EXPORT_RSA, SET_REQ, kRsa, export_pair},
    {SECURITY_KEY_PAIR_EXPORT_DSA, SET_REQ, kDsa, export_pair},
};

bool become(const passwd& user) {
    return initgroups(user.pw_name, user.pw_gid) == 0 &&
           setresgid(user.pw_gid, user.pw_gid, user.pw_gid) == 0 &&
           setresuid(user.pw_uid, user.pw_uid, user.pw_uid) == 0;
}

struct Outcome {
    uint32_t status = SECURITY_ERR_KEY_PAIR;
    uint32_t bits = 0;
};

Outcome run_as(const passwd& user, const Command& command, ssh_key_cmd_rec& record) {
    umask(022);
    if (!become(user)) return {};
    if (chdir(user.pw_dir) != 0) return {SECURITY_ERR_NO_USER};
    const uint32_t status = command.run(command.type, record);
    return {status, status == SECURITY_OK ? bits_of(command.type) : 0};
}

// ---- In the daemon

// Waits until there is something to read or nobody left to write it, but no longer than a command may take.
void await(int descriptor) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::seconds(kSeconds);
    pollfd awaited{descriptor, POLLIN, 0};
    for (auto left = end - Clock::now(); left.count() > 0; left = end - Clock::now()) {
        const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        if (poll(&awaited, 1, static_cast<int>(milliseconds)) >= 0 || errno != EINTR) return;
    }
}

// The user may have stopped the child and what it runs, so it is killed and not waited for to end by itself;
// nor for ever, as a file system of the user's making can hold even a killed process.
void end_child(pid_t child) {
    constexpr int kMilliseconds = 1000;
    kill(-child, SIGKILL);  // ssh-keygen below it as well
    kill(child, SIGKILL);   // should it not have come to lead its session yet
    for (int i = 0; i < kMilliseconds && waitpid(child, nullptr, WNOHANG) == 0; ++i) usleep(1000);
}

// A child that dies on the way, or is not done in time, has said nothing: the outcome stays a failure.
Outcome run_in_child(const passwd& user, const Command& command, ssh_key_cmd_rec& record) {
    Outcome outcome;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return outcome;  // eight bytes always fit
    const File out(ends[0]);
    pid_t child;
    {
        const File in(ends[1]);
        child = fork_without_handlers();
        if (child == 0) {
            setsid();         // to be ended as one, without a terminal to ask for a passphrase at
            alarm(kSeconds);  // should the daemon not be there to do it
            outcome = run_as(user, command, record);
            _exit(write(in.descriptor, &outcome, sizeof outcome) == sizeof outcome ? 0 : 1);
        }
    }
    if (child < 0) return outcome;
    await(out.descriptor);
    end_child(child);
    Outcome told;
    return read(out.descriptor, &told, sizeof told) == sizeof told ? told : outcome;
}

template <size_t count>
uint32_t serve(const Command (&commands)[count], uint32_t operation, ssh_key_cmd_rec& record) {
    const auto* command = std::find_if(commands, commands + count, [&](const Command& c) {
        return c.kind == record.kind && c.operation == operation;
    });
    if (command == commands + count) return SECURITY_ERR_NOT_SUPPORTED;
    // The homes of root and of the system's own accounts are not for this.
    const passwd* user = is_internal_user(record.user_name) == 1 ? nullptr : getpwnam(record.user_name);
    if (user == nullptr || user->pw_uid < kFirstUser) return SECURITY_ERR_NO_USER;
    const Outcome outcome = run_in_child(*user, *command, record);
    if (outcome.status == SECURITY_OK) record.value = outcome.bits;
    if (outcome.status == SECURITY_ERR_KEY_PAIR)
        syslog(LOG_ERR, "the %s key pair of %s: command %u failed", command->type.name, record.user_name,
               record.kind);
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
