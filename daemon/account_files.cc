#include "daemon/account_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <unordered_set>

#include "base/descriptor.h"
#include "base/file.h"
#include "daemon/homes.h"

namespace quill {
namespace {

constexpr off_t kLargestCached = 8 << 20;

constexpr const char* kPaths[] = {"/etc/passwd",  "/etc/shadow", "/etc/group",
                                  "/etc/gshadow", "/etc/subuid", "/etc/subgid"};

int open_file(AccountFile file) { return open(path_of(file), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }

// A missing file counts as empty, but passwd must exist. To be called with the errno of open(2) or stat(2).
bool may_be_missing(AccountFile file) { return errno == ENOENT && file != AccountFile::kPasswd; }

bool read_file(AccountFile file, SecretBytes& text) {
    const Descriptor opened(open_file(file));
    if (!opened) return may_be_missing(file);
    return read_regular_file(opened.get(), kLargestAccountFile, text);
}

// Returns the field of this number, counted from 0; empty if there are fewer.
std::string_view field(std::string_view line, int number) {
    for (; number > 0; --number) {
        const size_t colon = line.find(':');
        if (colon == line.npos) return {};
        line.remove_prefix(colon + 1);
    }
    return line.substr(0, line.find(':'));
}

template <class Number>
Number number_of(std::string_view text, Number missing) {
    Number number = missing;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : missing;
}

bool has_line(AccountFile file, const char* name, AccountRemains& remains) {
    SecretBytes text;
    std::string_view line;
    if (!read_file(file, text)) remains.known = false;
    return find_line(view(text), name, 0, line) != line.npos;
}

// ------------------------------------------------------------------------------------------ cached names

// The names of one file, and the version of the file that they were read from.
class CachedNames {
 public:
    explicit CachedNames(AccountFile file) : file_(file) {}

    // Returns false if the file cannot be read, except that a shadow file that the daemon's user may not read
    // counts as empty.
    bool find(const char* name, bool& found) {
        struct stat now;
        found = false;
        if (stat(path_of(file_), &now) != 0) return may_be_missing(file_);
        if (!same_version(now) && !read(now)) return errno == EACCES && file_ == AccountFile::kShadow;
        if (now.st_size > kLargestCached) return find_in_file(name, found);
        found = names_.contains(name);
        return true;
    }

 private:
    bool same_version(const struct stat& now) const {
        return valid_ && now.st_dev == version_.st_dev && now.st_ino == version_.st_ino &&
               now.st_size == version_.st_size && same_time(now.st_mtim, version_.st_mtim) &&
               same_time(now.st_ctim, version_.st_ctim);
    }
    static bool same_time(const timespec& one, const timespec& other) {
        return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
    }

    bool read(struct stat& now) {
        valid_ = false;
        names_.clear();
        const Descriptor opened(open_file(file_));
        SecretBytes text;
        if (!opened || fstat(opened.get(), &now) != 0) return false;
        if (now.st_size <= kLargestCached) {
            if (!read_regular_file(opened.get(), kLargestAccountFile, text)) return false;
            std::string_view rest = view(text);
            while (!rest.empty()) {
                const std::string_view line = rest.substr(0, rest.find('\n'));
                names_.emplace(line.substr(0, line.find(':')));
                rest.remove_prefix(std::min(rest.size(), line.size() + 1));
            }
            if (names_.empty() && file_ == AccountFile::kPasswd) return false;
        }
        version_ = now;
        valid_ = true;
        return true;
    }

    // For a file that is too large to be cached.
    bool find_in_file(const char* name, bool& found) const {
        SecretBytes text;
        std::string_view line;
        if (!read_file(file_, text)) return false;
        found = find_line(view(text), name, 0, line) != line.npos;
        return true;
    }

    const AccountFile file_;
    bool valid_ = false;
    struct stat version_ {};
    std::unordered_set<std::string> names_;
};

}  // namespace

const char* path_of(AccountFile file) { return kPaths[static_cast<size_t>(file)]; }

size_t find_line(std::string_view text, std::string_view name, size_t from, std::string_view& line) {
    for (size_t at = text.find(name, from); at != text.npos; at = text.find(name, at + 1)) {
        const size_t end = at + name.size();
        const bool starts = at == 0 || text[at - 1] == '\n';
        if (!starts || name.empty() || (end < text.size() && text[end] != ':' && text[end] != '\n')) continue;
        line = text.substr(at, text.find('\n', at) - at);
        return at;
    }
    return text.npos;
}

AccountRemains remains_of(const char* stored) {
    AccountRemains remains;
    remains.shadow = has_line(AccountFile::kShadow, stored, remains);
    remains.group = has_line(AccountFile::kGroup, stored, remains);
    remains.gshadow = has_line(AccountFile::kGshadow, stored, remains);
    remains.subuid = has_line(AccountFile::kSubuid, stored, remains);
    remains.subgid = has_line(AccountFile::kSubgid, stored, remains);
    const std::string home = home_of(stored);
    struct stat facts;
    remains.home = lstat(home.c_str(), &facts) == 0;
    SecretBytes text;
    std::string_view line;
    if (!read_file(AccountFile::kPasswd, text)) remains.known = false;
    remains.passwd = find_line(view(text), stored, 0, line) != line.npos;
    // An invalid user ID counts as root's.
    const uid_t uid = remains.passwd ? number_of(field(line, 2), uid_t{0}) : 0;
    remains.ours = uid != 0 && field(line, 5) == home;
    if (remains.ours) remains.uid = uid;
    return remains;
}

bool read_shadow(const char* stored, SecretBytes& text, ShadowEntry& entry) {
    std::string_view line;
    if (!read_file(AccountFile::kShadow, text) || find_line(view(text), stored, 0, line) == line.npos)
        return false;
    const auto day = [&line](int number) {
        return static_cast<int32_t>(
            std::clamp<int64_t>(number_of(field(line, number), int64_t{-1}), -1, INT32_MAX));
    };
    entry = {field(line, 1), day(2), day(7)};
    return true;
}

bool uid_is_used(uid_t uid) {
    SecretBytes text;
    if (!read_file(AccountFile::kPasswd, text)) return true;
    std::string_view rest = view(text);
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (number_of(field(line, 2), static_cast<uid_t>(-1)) == uid) return true;
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    }
    return false;
}

AccountNames find_account(const char* stored) {
    static CachedNames passwd(AccountFile::kPasswd), shadow(AccountFile::kShadow);
    AccountNames found{true, false, false};
    const bool passwd_known = passwd.find(stored, found.passwd);
    found.known = shadow.find(stored, found.shadow) && passwd_known;
    return found;
}

}  // namespace quill
