#include "platform/store/sqlite_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/file.h"
#include "platform/store/engine.h"
#include "platform/store/sqlite.h"

namespace quill {
namespace {

constexpr char kCreate[] =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA application_id=0x51536563;"
    "CREATE TABLE record(key BLOB PRIMARY KEY NOT NULL, value BLOB NOT NULL, sum INTEGER NOT NULL) WITHOUT "
    "ROWID;"
    "PRAGMA journal_mode=WAL;";

uint32_t create_private_file(const std::string& path) {
    const Descriptor file(create_file(path.c_str(), 0600));
    if (!file) return status_of_errno(errno);
    const int result = fchmod(file.get(), 0600);  // a umask may have removed the owner's permissions
    return status_of_errno(result == 0 ? 0 : errno);
}

uint32_t create_tables(const std::string& path) {
    Database database;
    int result = open_database(path, nullptr, database);
    if (result == SQLITE_OK) result = execute(database.get(), kCreate);
    const uint32_t status = status_of_sqlite(result);
    if (status != PSS_OK) log_store_error(path, status, sqlite3_errmsg(database.get()));
    errno = 0;
    result = sqlite3_close(database.release());
    return status != PSS_OK ? status : status_of_sqlite(result);
}

// Renames `from` to `to`, unless `to` exists; that is success as well.
uint32_t rename_unless_exists(const std::string& from, const std::string& to) {
    int result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL)  // the file system does not support the flag
        result = link(from.c_str(), to.c_str());
    return result == 0 || errno == EEXIST ? PSS_OK : status_of_errno(errno);
}

// The caller holds the folder's lock. The store is built under a temporary name and then renamed.
uint32_t create_locked(const std::string& path) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) == 0) return PSS_OK;  // another process has created it meanwhile
    const std::string temporary = path + ".new";
    for (const char* suffix : {"", "-journal", "-wal"}) unlink((temporary + suffix).c_str());
    uint32_t status = create_private_file(temporary);
    if (status == PSS_OK) status = create_tables(temporary);
    if (status == PSS_OK) status = rename_unless_exists(temporary, path);
    unlink(temporary.c_str());
    return status;
}

// SQLite's magic string, and our application id as a big-endian word.
bool is_store_header(const unsigned char (&header)[100]) {
    uint32_t id = 0;
    for (size_t i = 68; i < 72; ++i) id = id << 8 | header[i];
    return memcmp(header, "SQLite format 3", 16) == 0 && id == kApplicationId;
}

}  // namespace

FileCheck check_sqlite_file(const std::string& path) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) != 0)
        return {errno == ENOENT ? PSS_NO_STORE : status_of_errno(errno), "no file"};
    if (!S_ISREG(facts.st_mode)) return {PSS_NOT_A_STORE, "not a regular file"};
    if (facts.st_uid != geteuid()) return {PSS_UNSAFE, "owned by another user"};

    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return {status_of_errno(errno), "cannot be opened"};
    unsigned char header[100] = {};
    const ssize_t got = pread(file.get(), header, sizeof header, 0);
    if (got < 0) return {PSS_IO, "cannot be read"};
    if (got != sizeof header || !is_store_header(header))
        return {PSS_NOT_A_STORE, "its header is not that of a store"};
    // A copy that was restored may have lost its mode. The folder has kept others out.
    if ((facts.st_mode & 077) != 0 && fchmod(file.get(), 0600) != 0)
        return {PSS_UNSAFE, "cannot be closed to others"};
    return {PSS_OK, ""};
}

uint32_t create_sqlite_file(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/'));
    const Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || flock(lock.get(), LOCK_EX) != 0) return status_of_errno(errno);
    const uint32_t status = create_locked(path);
    return status == PSS_OK ? sync_folder(folder) : status;
}

}  // namespace quill
