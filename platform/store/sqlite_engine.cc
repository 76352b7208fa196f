// Stores on SQLite: one WITHOUT ROWID table of blob to blob.
//
// Write-ahead log with synchronous=FULL, so that a change costs one flush. Locked exclusively for as long as
// it is open, so that reads need no shared memory and no lock. What secure_delete leaves in the log is
// removed by settle(), which moves the log into the file and empties it; what it leaves in pages, by the
// blanking VFS.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/store/blanking_vfs.h"
#include "platform/store/engine.h"

namespace quill {
namespace {

constexpr uint32_t kApplicationId = 0x51536563;  // "QSec", where SQLite keeps it in the header
constexpr int kSettleAfter = 256;                // changes; promised in quillplatform/pss.h

constexpr char kCreate[] =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA application_id=0x51536563;"
    "CREATE TABLE record(key BLOB PRIMARY KEY NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"
    "PRAGMA journal_mode=WAL;";
constexpr char kSettings[] =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA secure_delete=ON;"
    "PRAGMA wal_autocheckpoint=0;"
    "PRAGMA trusted_schema=OFF;"
    "PRAGMA cell_size_check=ON;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA max_page_count=16777215;";  // keeps b-tree pages apart from others by their first byte, for
                                        // blanking

// Every error of SQLite turns into a status here. What the system refused is in errno, which each call below
// clears first: sqlite3_system_errno() says nothing of failures while a change is committed.
uint32_t status_of(int result) {
    const int error = errno;
    switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return PSS_OK;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return PSS_IN_USE;
    case SQLITE_FULL:
        return PSS_FULL;
    case SQLITE_CORRUPT:
        return error == EIO ? PSS_IO : PSS_CORRUPT;  // SQLite takes a read that failed so for damage
    case SQLITE_NOTADB:
        return PSS_NOT_A_STORE;
    case SQLITE_READONLY:
        return PSS_READ_ONLY;
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return PSS_DENIED;
    case SQLITE_NOMEM:
        return PSS_NO_MEMORY;
    case SQLITE_TOOBIG:
        return PSS_BAD_ARGUMENT;
    case SQLITE_IOERR:
        if (result == SQLITE_IOERR_NOMEM) return PSS_NO_MEMORY;
        [[fallthrough]];
    case SQLITE_CANTOPEN:
        return error == 0 ? PSS_IO : status_of_errno(error);
    default:
        return PSS_ENGINE;
    }
}

int execute(sqlite3* database, const char* text) {
    errno = 0;
    return sqlite3_exec(database, text, nullptr, nullptr, nullptr);
}

// A prepared statement, ready again once it goes out of use.
class Statement {
 public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int prepare(sqlite3* database, const char* text) {
        errno = 0;
        return sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr);
    }
    // The bytes must stay until the statement is reset. An empty text is still a blob, not a null.
    void bind(int index, std::string_view bytes) {
        sqlite3_bind_blob64(statement_, index, bytes.empty() ? "" : bytes.data(), bytes.size(),
                            SQLITE_STATIC);
    }
    int step() {
        errno = 0;
        return sqlite3_step(statement_);
    }
    void reset() { sqlite3_reset(statement_); }
    void column(int index, std::string& bytes) const {
        const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, index));
        const auto length = static_cast<size_t>(sqlite3_column_bytes(statement_, index));
        if (data == nullptr && length != 0) throw std::bad_alloc();
        bytes.assign(data == nullptr ? "" : data, length);
    }
    int64_t number() const { return sqlite3_column_int64(statement_, 0); }

 private:
    sqlite3_stmt* statement_ = nullptr;
};

// A statement in use for one call.
class Use {
 public:
    explicit Use(Statement& statement) : statement_(statement) {}
    ~Use() { statement_.reset(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Statement* operator->() { return &statement_; }

 private:
    Statement& statement_;
};

class SqliteEngine final : public Engine {
 public:
    explicit SqliteEngine(std::string path) : path_(std::move(path)) {}
    ~SqliteEngine() override {
        walk_.reset();
        if (opened_) settle();
    }
    SqliteEngine(const SqliteEngine&) = delete;
    SqliteEngine& operator=(const SqliteEngine&) = delete;

    uint32_t open();

    uint32_t fetch(std::string_view key, std::string& value) override;
    uint32_t at_or_after(std::string_view key, Record& found) override;
    uint32_t after(std::string_view key, Record& found) override;
    uint32_t put(std::string_view key, std::string_view value) override;
    uint32_t erase(std::string_view key) override;
    uint32_t version(uint32_t& version) override;
    uint32_t stamp(uint32_t version) override;
    uint32_t settle() override;

 private:
    uint32_t report(int result);
    uint32_t walked(int result, Record& found);
    uint32_t changed(int result);
    void end_walk();

    std::string path_;
    struct Connection {
        sqlite3* database = nullptr;
        Connection() = default;
        ~Connection() { sqlite3_close_v2(database); }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
    } connection_;
    Statement fetch_, walk_, put_, erase_, version_;  // finalized before the connection closes
    std::string walk_from_, walk_key_;
    bool walking_ = false;  // walk_ stands on walk_key_ and holds a snapshot
    bool opened_ = false;
    int unsettled_ = 0;
    uint32_t reported_ = PSS_OK;
};

// A status, logged when it is not the one that was logged last: a full disk is one line, not one a request.
uint32_t SqliteEngine::report(int result) {
    const uint32_t status = status_of(result);
    if (status == reported_) return status;
    if (status != PSS_OK)
        log_store_error(path_, status, sqlite3_errmsg(connection_.database));
    else
        syslog(LOG_NOTICE, "store %s: works again", path_.c_str());
    reported_ = status;
    return status;
}

uint32_t SqliteEngine::open() {
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    errno = 0;
    int result = sqlite3_open_v2(path_.c_str(), &connection_.database, kFlags, blanking_vfs());
    sqlite3* database = connection_.database;
    if (result == SQLITE_OK) result = execute(database, kSettings);
    if (result == SQLITE_OK) result = fetch_.prepare(database, "SELECT value FROM record WHERE key = ?1");
    if (result == SQLITE_OK)
        result = walk_.prepare(database, "SELECT key, value FROM record WHERE key >= ?1 ORDER BY key");
    if (result == SQLITE_OK)
        result = put_.prepare(database,
                              "INSERT INTO record(key, value) VALUES(?1, ?2) "
                              "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    if (result == SQLITE_OK) result = erase_.prepare(database, "DELETE FROM record WHERE key = ?1");
    if (result == SQLITE_OK) result = version_.prepare(database, "PRAGMA user_version");
    // The lock is taken, and a log that a crash left is recovered, by the first read; settling reads and
    // rids the log of what it still held.
    if (result == SQLITE_OK) result = execute(database, "SELECT 1 FROM record LIMIT 1");
    const uint32_t status = report(result);
    if (status != PSS_OK) return status;
    opened_ = true;
    unsettled_ = 1;
    settle();
    return PSS_OK;
}

uint32_t SqliteEngine::fetch(std::string_view key, std::string& value) {
    Use use(fetch_);
    use->bind(1, key);
    const int result = use->step();
    if (result == SQLITE_ROW) use->column(0, value);
    const uint32_t status = report(result);
    return status == PSS_OK && result == SQLITE_DONE ? PSS_NO_KEY : status;
}

void SqliteEngine::end_walk() {
    walk_.reset();
    walking_ = false;
}

uint32_t SqliteEngine::walked(int result, Record& found) {
    if (result == SQLITE_ROW) {
        walk_.column(0, found.key);
        walk_.column(1, found.value);
        walk_key_ = found.key;
        walking_ = true;
        return report(result);
    }
    end_walk();
    const uint32_t status = report(result);
    return status == PSS_OK ? PSS_NO_KEY : status;
}

uint32_t SqliteEngine::at_or_after(std::string_view key, Record& found) {
    end_walk();
    walk_from_ = key;
    walk_.bind(1, walk_from_);
    return walked(walk_.step(), found);
}

// The usual step goes on from where the last one stood; any other is a search of its own.
uint32_t SqliteEngine::after(std::string_view key, Record& found) {
    if (walking_ && walk_key_ == key) return walked(walk_.step(), found);
    const std::string from(key);
    const uint32_t status = at_or_after(from, found);
    return status == PSS_OK && found.key == from ? walked(walk_.step(), found) : status;
}

// After a statement that changed the store, or failed to.
uint32_t SqliteEngine::changed(int result) {
    const uint32_t status = report(result);
    // A flush that failed leaves the change whole in the log, and a crash would bring it back as done.
    const bool in_log = result == SQLITE_IOERR_FSYNC;
    if (status == PSS_OK || in_log) ++unsettled_;
    if (unsettled_ >= kSettleAfter || in_log) settle();
    return status;
}

uint32_t SqliteEngine::put(std::string_view key, std::string_view value) {
    end_walk();
    int result;
    {
        Use use(put_);
        use->bind(1, key);
        use->bind(2, value);
        result = use->step();
    }
    return changed(result);
}

uint32_t SqliteEngine::erase(std::string_view key) {
    end_walk();
    int result;
    {
        Use use(erase_);
        use->bind(1, key);
        result = use->step();
    }
    if (result == SQLITE_DONE && sqlite3_changes(connection_.database) == 0) return PSS_NO_KEY;
    return changed(result);
}

uint32_t SqliteEngine::version(uint32_t& version) {
    Use use(version_);
    const int result = use->step();
    if (result == SQLITE_ROW) version = static_cast<uint32_t>(use->number());
    return report(result);
}

uint32_t SqliteEngine::stamp(uint32_t version) {
    end_walk();
    char text[64];
    snprintf(text, sizeof text, "PRAGMA user_version=%d", static_cast<int32_t>(version));
    return changed(execute(connection_.database, text));
}

uint32_t SqliteEngine::settle() {
    if (unsettled_ == 0) return PSS_OK;
    end_walk();
    errno = 0;
    const int result = sqlite3_wal_checkpoint_v2(connection_.database, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                 nullptr, nullptr);
    const uint32_t status = report(result);
    if (status == PSS_OK) unsettled_ = 0;
    return status;
}

// ---- The file before SQLite sees it.

uint32_t sync_folder_of(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/'));
    const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return status_of_errno(errno);
    const int result = fsync(descriptor);
    const uint32_t status = status_of_errno(result == 0 ? 0 : errno);
    close(descriptor);
    return status;
}

uint32_t make_private_file(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) return status_of_errno(errno);
    const int result = fchmod(descriptor, 0600);  // the mask may have taken the owner's own bits
    const uint32_t status = status_of_errno(result == 0 ? 0 : errno);
    close(descriptor);
    return status;
}

uint32_t fill_new_file(const std::string& path) {
    sqlite3* database = nullptr;
    errno = 0;
    int result =
        sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_EXRESCODE, nullptr);
    if (result == SQLITE_OK) result = execute(database, kCreate);
    const uint32_t status = status_of(result);
    if (status != PSS_OK) log_store_error(path, status, sqlite3_errmsg(database));
    errno = 0;
    result = sqlite3_close(database);
    return status != PSS_OK ? status : status_of(result);
}

// Made whole under another name and then given its own, so that a crash leaves either no store or an empty
// one.
uint32_t create_file(const std::string& path) {
    const std::string fresh = path + ".new";
    for (const char* suffix : {"", "-journal", "-wal"}) unlink((fresh + suffix).c_str());
    uint32_t status = make_private_file(fresh);
    if (status == PSS_OK) status = fill_new_file(fresh);
    if (status == PSS_OK &&
        renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0 && errno != EEXIST)
        status = status_of_errno(errno);
    unlink(fresh.c_str());
    return status == PSS_OK ? sync_folder_of(path) : status;
}

// SQLite's header with our application id. Read without SQLite, which would already recover a foreign file.
bool has_our_header(const unsigned char (&header)[100]) {
    uint32_t id = 0;
    for (size_t i = 68; i < 72; ++i) id = id << 8 | header[i];
    return memcmp(header, "SQLite format 3", 16) == 0 && id == kApplicationId;
}

struct Finding {
    uint32_t status;
    const char* detail;
};

Finding examine_file(const std::string& path) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) != 0)
        return {errno == ENOENT ? PSS_NO_STORE : status_of_errno(errno), "no file"};
    if (!S_ISREG(facts.st_mode)) return {PSS_NOT_A_STORE, "not a regular file"};
    if (facts.st_uid != geteuid()) return {PSS_UNSAFE, "owned by another user"};

    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return {status_of_errno(errno), "cannot be opened"};
    unsigned char header[100] = {};
    const ssize_t got = pread(descriptor, header, sizeof header, 0);
    const bool ours = got == sizeof header && has_our_header(header);
    // A file restored from elsewhere: its folder kept others out, now it does so itself.
    const bool private_now = !ours || (facts.st_mode & 077) == 0 || fchmod(descriptor, 0600) == 0;
    close(descriptor);
    if (got < 0) return {PSS_IO, "cannot be read"};
    if (!ours) return {PSS_NOT_A_STORE, "its header is not that of a store"};
    return {private_now ? PSS_OK : PSS_UNSAFE, "cannot be closed to others"};
}

}  // namespace

uint32_t open_sqlite_engine(const std::string& path, bool create, std::unique_ptr<Engine>& engine) {
    Finding file = examine_file(path);
    if (file.status == PSS_NO_STORE) {
        if (!create) return PSS_NO_STORE;
        file = {create_file(path), "cannot be created"};
        if (file.status == PSS_OK) file = examine_file(path);
    }
    if (file.status != PSS_OK) {
        log_store_error(path, file.status, file.detail);
        return file.status;
    }
    auto opened = std::make_unique<SqliteEngine>(path);
    const uint32_t status = opened->open();
    if (status == PSS_OK) engine = std::move(opened);
    return status;
}

}  // namespace quill
