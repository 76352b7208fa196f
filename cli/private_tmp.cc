#include "cli/private_tmp.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "base/descriptor.h"
#include "base/process.h"
#include "cli/file_value.h"

namespace quill::cli {
namespace {

constexpr char kTmp[] = "/tmp";
// The names that the library uses.
constexpr const char* kFixedNames[] = {"/tmp/tmpkey.pub", "/tmp/outkey.pub", "/tmp/errkey.pub"};

// The progress of the child process.
enum Ending { kNoNamespace = 0, kBroken, kDone };

bool write_line(const char* path, const std::string& line) {
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    return file && write(file.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

// A caller who may not create a mount namespace may usually create one inside a new user namespace. The
// caller's uid is mapped there if the kernel permits it; if not, it reads as that of nobody, but still owns
// its files.
bool enter_namespace() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
        write_line("/proc/self/setgroups", "deny");
        write_line("/proc/self/uid_map", fmt::format("{0} {0} 1", user));
        write_line("/proc/self/gid_map", fmt::format("{0} {0} 1", group));
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Reports in `ending`, not by the exit status: the kernel keeps none if this process ignores SIGCHLD, a
// setting that it may have inherited.
void work_in_child(const OwnFolder& folder, const char* name, Ending& ending,
                   const std::function<void(const std::string&)>& work) {
    if (enter_namespace() && mount(folder.path(), kTmp, nullptr, MS_BIND, nullptr) == 0) {
        ending = kBroken;
        try {
            work(std::string(kTmp) + "/" + name);
            ending = kDone;
        } catch (...) {  // the parent reports it
        }
    }
}

std::string owner_of(const struct stat& facts) {
    const passwd* owner = getpwuid(facts.st_uid);
    return owner != nullptr ? fmt::format("user '{}'", owner->pw_name) : fmt::format("user {}", facts.st_uid);
}

// Waits for the lock that the library takes, but not forever.
void wait_for_lock() {
    constexpr timespec kStep{0, 10'000'000};
    constexpr int kSteps = 500;
    const Descriptor tmp(open(kTmp, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; flock(tmp.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++i) {
        if (i == kSteps)
            throw Failure{Exit::kBusy, kTmp,
                          "another process holds the lock on /tmp, under which SSH keys are worked on",
                          "find and end it with the help of lslocks(8), or ask root to do this"};
        nanosleep(&kStep, nullptr);
    }
}

void require_fixed_names() {
    wait_for_lock();
    if (geteuid() == 0) return;  // root can replace them
    for (const char* name : kFixedNames) {
        struct stat facts;
        if (lstat(name, &facts) != 0 || facts.st_uid == geteuid()) continue;
        throw Failure{Exit::kNotPermitted, name,
                      fmt::format("{} is in the way and belongs to {}", name, owner_of(facts)),
                      "ask root to remove it"};
    }
}

}  // namespace

OwnFolder::OwnFolder() { made_ = mkdtemp(path_) != nullptr; }

OwnFolder::~OwnFolder() {
    std::error_code ignored;
    if (made_) std::filesystem::remove_all(path_, ignored);
}

void with_private_tmp(const std::function<void(const std::string& path)>& work) {
    const OwnFolder folder;
    if (!folder.made()) throw file_failure(kTmp, errno);
    // ssh-keygen lists a key by its comment or its path, so the path must not occur in any comment.
    const char* name = strrchr(folder.path(), '/') + 1;
    const Shared<Ending> ending;
    Child child = Child::call([&, parent = getpid()] {
        die_with_parent(parent);
        work_in_child(folder, name, *ending, work);
        return 0;
    });
    child.wait(kNever);
    if (*ending == kDone) return;
    if (*ending == kBroken) {
        throw Failure{Exit::kFailed, "ssh-keygen", "the process that reads an SSH key died", "try again"};
    }
    require_fixed_names();
    work(folder.file(name));
}

}  // namespace quill::cli
