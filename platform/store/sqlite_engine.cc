// Stores on SQLite: one WITHOUT ROWID table of blob to blob.
//
// Write-ahead log with synchronous=FULL, so that a change costs one flush. Locked exclusively for as long as
// it is open, so that reads need no shared memory and no lock. What secure_delete leaves in the log is
// removed by settle(), which moves the log into the file and empties it; what it leaves in pages, by the
// blanking VFS.
//
// SQLite finds damage to its trees, not to the bytes of a long value. Each record has a sum of them, so that
// nothing is handed out that was not stored.
#include <fcntl.h>
#include <libdeflate.h>
#include <sqlite3.h>
#include <sys/file.h>
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
    "CREATE TABLE record(key BLOB PRIMARY KEY NOT NULL, value BLOB NOT NULL, sum INTEGER NOT NULL) WITHOUT "
    "ROWID;"
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

constexpr char kChangeNothing[] = "PRAGMA application_id=0x51536563;";

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
        if (result == SQLITE_IOERR_SHORT_READ) return PSS_IO;  // no call failed: errno is an older one's
        [[fallthrough]];
    case SQLITE_CANTOPEN:
        return error == 0 ? PSS_IO : status_of_errno(error);
    default:
        return PSS_ENGINE;
    }
}

bool lacks_room(uint32_t status) {
    return status == PSS_FULL || status == PSS_QUOTA || status == PSS_TOO_LARGE;
}

// CRC-32 of a record, against accidents: whoever may write the file can make it right again.
int64_t sum_of(std::string_view key, std::string_view value) {
    uint32_t sum = 0;
    for (const std::string_view bytes : {key, value}) sum = libdeflate_crc32(sum, bytes.data(), bytes.size());
    return sum;
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
    void bind(int index, int64_t number) { sqlite3_bind_int64(statement_, index, number); }
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
    // The value of this key, which stands in the first column and its sum in the second. False where it is
    // damaged.
    bool take(std::string_view key, std::string& value) const {
        column(0, value);
        return sqlite3_column_int64(statement_, 1) == sum_of(key, value);
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
        if (ours_) settle();
    }
    SqliteEngine(const SqliteEngine&) = delete;
    SqliteEngine& operator=(const SqliteEngine&) = delete;

    uint32_t open(uint32_t expected_version);

    uint32_t fetch(std::string_view key, std::string& value) override;
    uint32_t at_or_after(std::string_view key, Record& found) override;
    uint32_t after(std::string_view key, Record& found) override;
    uint32_t put(std::string_view key, std::string_view value) override;
    uint32_t erase(std::string_view key) override;
    uint32_t stamp(uint32_t version) override;
    uint32_t settle() override;

 private:
    enum Work { kReading, kWriting, kSettling, kWorks };

    uint32_t report(Work work, uint32_t status);
    uint32_t damaged();
    uint32_t walked(int result, Record& found);
    uint32_t standing(Record& found);
    template <typename Run>
    uint32_t change(Run run);
    void withdraw();
    int read_version();
    int begin_log();
    int prepare_statements();
    int empty_log();
    void end_walk();

    std::string path_;
    struct Connection {
        sqlite3* database = nullptr;
        Connection() = default;
        ~Connection() { sqlite3_close_v2(database); }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
    } connection_;
    Statement fetch_, walk_, put_, erase_;  // finalized before the connection closes
    std::string walk_from_, walk_key_;
    bool walking_ = false;  // walk_ stands on walk_key_ and holds a snapshot
    bool walk_sound_ = false;
    bool ours_ = false;  // of the version that was expected: nothing is written before
    uint32_t version_ = 0;
    int unsettled_ = 0;
    uint32_t reported_[kWorks] = {};  // PSS_OK
    bool damage_reported_ = false;
};

// A status, logged when it is not the one that was logged last for this kind of work: a full disk is one
// line, not one a request, whatever can still be read.
uint32_t SqliteEngine::report(Work work, uint32_t status) {
    static constexpr const char* kNames[] = {"reading", "writing", "settling"};
    if (status == reported_[work]) return status;
    if (status != PSS_OK)
        log_store_error(path_, status, sqlite3_errmsg(connection_.database));
    else
        syslog(LOG_NOTICE, "store %s: %s works again", path_.c_str(), kNames[work]);
    reported_[work] = status;
    return status;
}

// Of one record: the others are read on.
uint32_t SqliteEngine::damaged() {
    if (!damage_reported_) log_store_error(path_, PSS_CORRUPT, "the sum of a record is wrong");
    damage_reported_ = true;
    return PSS_CORRUPT;
}

uint32_t SqliteEngine::open(uint32_t expected_version) {
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    errno = 0;
    const char* vfs = blanking_vfs();
    if (vfs == nullptr) return PSS_NO_MEMORY;
    int result = sqlite3_open_v2(path_.c_str(), &connection_.database, kFlags, vfs);
    sqlite3* database = connection_.database;
    if (result == SQLITE_OK) result = execute(database, kSettings);
    // The lock is taken, and a log that a crash left is read, by the first read.
    if (result == SQLITE_OK) result = execute(database, "SELECT 1 FROM record LIMIT 1");
    if (result == SQLITE_OK) result = read_version();
    uint32_t status = report(kReading, status_of(result));
    if (status == PSS_OK) status = check_version(path_, version_, expected_version);
    if (status == PSS_OK) status = report(kWriting, status_of(begin_log()));
    if (status == PSS_OK) status = report(kReading, status_of(prepare_statements()));
    if (status != PSS_OK) {
        // It is left as it is, and its log as well. No memory, no database.
        if (database != nullptr) sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        return status;
    }
    ours_ = true;
    unsettled_ = 1;  // whatever the log still held
    settle();
    return PSS_OK;
}

int SqliteEngine::prepare_statements() {
    sqlite3* database = connection_.database;
    int result = fetch_.prepare(database, "SELECT value, sum FROM record WHERE key = ?1");
    if (result == SQLITE_OK)
        result = walk_.prepare(database, "SELECT value, sum, key FROM record WHERE key >= ?1 ORDER BY key");
    if (result == SQLITE_OK)
        result = put_.prepare(database,
                              "INSERT INTO record(key, value, sum) VALUES(?1, ?2, ?3) "
                              "ON CONFLICT(key) DO UPDATE SET value = excluded.value, sum = excluded.sum");
    if (result == SQLITE_OK) result = erase_.prepare(database, "DELETE FROM record WHERE key = ?1");
    return result;
}

int SqliteEngine::read_version() {
    Statement query;
    int result = query.prepare(connection_.database, "PRAGMA user_version");
    if (result == SQLITE_OK) result = query.step();
    if (result == SQLITE_ROW) version_ = static_cast<uint32_t>(query.number());
    return result;
}

// A store that was restored from a copy may have come without its write-ahead log; in any other mode old
// values would stay in a journal.
int SqliteEngine::begin_log() {
    Statement query;
    int result = query.prepare(connection_.database, "PRAGMA journal_mode=WAL");
    if (result == SQLITE_OK) result = query.step();
    if (result != SQLITE_ROW) return result;
    std::string mode;
    query.column(0, mode);
    return mode == "wal" ? SQLITE_OK : SQLITE_ERROR;
}

uint32_t SqliteEngine::fetch(std::string_view key, std::string& value) {
    Use use(fetch_);
    use->bind(1, key);
    const int result = use->step();
    if (result == SQLITE_ROW && !use->take(key, value)) return damaged();
    const uint32_t status = report(kReading, status_of(result));
    return status == PSS_OK && result == SQLITE_DONE ? PSS_NO_KEY : status;
}

void SqliteEngine::end_walk() {
    walk_.reset();
    walking_ = false;
}

uint32_t SqliteEngine::walked(int result, Record& found) {
    walking_ = false;  // also where memory runs out below
    if (result == SQLITE_ROW) {
        walk_.column(2, found.key);
        found.sound = walk_.take(found.key, found.value);
        walk_key_ = found.key;
        walk_sound_ = found.sound;
        walking_ = true;
        return report(kReading, PSS_OK);
    }
    end_walk();
    const uint32_t status = report(kReading, status_of(result));
    return status == PSS_OK ? PSS_NO_KEY : status;
}

// Where the walk stands already.
uint32_t SqliteEngine::standing(Record& found) {
    found.key = walk_key_;
    found.sound = walk_sound_;
    walk_.column(0, found.value);
    return PSS_OK;
}

// A walk often begins where the last one stands: whoever asks for one record after the other names the last.
uint32_t SqliteEngine::at_or_after(std::string_view key, Record& found) {
    if (walking_ && walk_key_ == key) return standing(found);
    end_walk();
    walk_from_ = key;
    walk_.bind(1, walk_from_);
    return walked(walk_.step(), found);
}

// The usual step goes on from there as well; any other is a search of its own.
uint32_t SqliteEngine::after(std::string_view key, Record& found) {
    if (walking_ && walk_key_ == key) return walked(walk_.step(), found);
    const std::string from(key);
    const uint32_t status = at_or_after(from, found);
    return status == PSS_OK && found.key == from ? walked(walk_.step(), found) : status;
}

// Runs a statement that changes the store; SQLITE_NOTFOUND of it where there is nothing to change. Where the
// room for it is what the log has taken, that is emptied and the statement run again.
template <typename Run>
uint32_t SqliteEngine::change(Run run) {
    end_walk();
    const int result = run();
    if (result == SQLITE_NOTFOUND) return PSS_NO_KEY;
    uint32_t status = status_of(result);
    ++unsettled_;
    if (lacks_room(status) && settle() == PSS_OK) {
        status = status_of(run());
        ++unsettled_;
    }
    report(kWriting, status);
    if (status != PSS_OK)
        withdraw();
    else if (unsettled_ >= kSettleAfter || room_is_scarce())
        settle();
    return status;
}

// A change that failed may stand whole in the log, where its flush or what came after that failed: a crash
// would bring it back as done. Where the log cannot be emptied, a commit that changes nothing takes its place
// in there; the flush of that one may fail as well.
void SqliteEngine::withdraw() {
    if (settle() != PSS_OK) execute(connection_.database, kChangeNothing);
}

uint32_t SqliteEngine::put(std::string_view key, std::string_view value) {
    return change([&] {
        Use use(put_);
        use->bind(1, key);
        use->bind(2, value);
        use->bind(3, sum_of(key, value));
        return use->step();
    });
}

uint32_t SqliteEngine::erase(std::string_view key) {
    return change([&] {
        Use use(erase_);
        use->bind(1, key);
        const int result = use->step();
        const bool found = sqlite3_changes(connection_.database) != 0;
        return result == SQLITE_DONE && !found ? SQLITE_NOTFOUND : result;
    });
}

uint32_t SqliteEngine::stamp(uint32_t version) {
    if (version == version_) return PSS_OK;
    char text[64];
    snprintf(text, sizeof text, "PRAGMA user_version=%d", static_cast<int32_t>(version));
    const uint32_t status = change([&] { return execute(connection_.database, text); });
    if (status == PSS_OK) version_ = version;
    return status;
}

// SQLite does not flush the log that it has cut off, and a loss of power would bring back what stood there.
int SqliteEngine::empty_log() {
    sqlite3* database = connection_.database;
    errno = 0;
    int result = sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_file* log = nullptr;
    if (result == SQLITE_OK)
        result = sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
    if (result == SQLITE_OK && log != nullptr && log->pMethods != nullptr)
        result = log->pMethods->xSync(log, SQLITE_SYNC_NORMAL);
    return result;
}

uint32_t SqliteEngine::settle() {
    if (unsettled_ == 0) return PSS_OK;
    end_walk();
    const uint32_t status = report(kSettling, status_of(empty_log()));
    if (status == PSS_OK) unsettled_ = 0;
    return status;
}

// ---- The file before SQLite sees it.

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

// Gives the file its name, unless something has that already.
uint32_t name_file(const std::string& fresh, const std::string& path) {
    int result = renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) result = link(fresh.c_str(), path.c_str());  // by some file systems
    return result == 0 || errno == EEXIST ? PSS_OK : status_of_errno(errno);
}

// Made whole under another name and then given its own, so that a crash leaves either no store or an empty
// one. The folder's lock is held.
uint32_t create_file_alone(const std::string& path) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) == 0) return PSS_OK;  // another process was faster
    const std::string fresh = path + ".new";
    for (const char* suffix : {"", "-journal", "-wal"}) unlink((fresh + suffix).c_str());
    uint32_t status = make_private_file(fresh);
    if (status == PSS_OK) status = fill_new_file(fresh);
    if (status == PSS_OK) status = name_file(fresh, path);
    unlink(fresh.c_str());
    return status;
}

// Held while in scope, also where memory runs out in it.
struct FolderLock {
    const int descriptor;
    uint32_t status;

    explicit FolderLock(const std::string& folder)
        : descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
          status(status_of_errno(descriptor >= 0 && flock(descriptor, LOCK_EX) == 0 ? 0 : errno)) {}
    ~FolderLock() {
        if (descriptor >= 0) close(descriptor);
    }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
};

uint32_t create_file(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/'));
    const FolderLock lock(folder);
    uint32_t status = lock.status;
    if (status == PSS_OK) status = create_file_alone(path);
    if (status == PSS_OK) status = sync_folder(folder);
    return status;
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

uint32_t open_sqlite_engine(const std::string& path, bool create, uint32_t version,
                            std::unique_ptr<Engine>& engine) {
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
    const uint32_t status = opened->open(version);
    if (status == PSS_OK) engine = std::move(opened);
    return status;
}

}  // namespace quill
