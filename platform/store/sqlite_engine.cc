// A database engine on SQLite: one WITHOUT ROWID table that maps blobs to blobs.
//
// The journal is a write-ahead log (WAL) with synchronous=FULL, so that a change costs one flush. The file is
// locked exclusively while it is open, so that reads take neither shared memory nor locks. secure_delete
// overwrites deleted bytes in the database file; checkpoint() removes them from the WAL, by moving it into
// the database file and truncating it, and the VFS of blanking_vfs.h removes them from unused parts of pages.
//
// SQLite detects damage to the structure of its trees, but not to the bytes of a long value. Each record
// therefore has a checksum.
#include <syslog.h>

#include <cerrno>
#include <cstdio>

#include "platform/store/blanking_vfs.h"
#include "platform/store/engine.h"
#include "platform/store/sqlite.h"
#include "platform/store/sqlite_file.h"

namespace quill {
namespace {

constexpr int kMaxChangesInWal = 256;  // until a checkpoint; promised in quillplatform/pss.h

// The limit of pages keeps page numbers below 2^24. So a page that begins with a page number begins with a
// zero byte, and blank_gap() does not take it for a b-tree page.
constexpr char kSettings[] =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA secure_delete=ON;"
    "PRAGMA wal_autocheckpoint=0;"
    "PRAGMA trusted_schema=OFF;"
    "PRAGMA cell_size_check=ON;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA max_page_count=16777215;";  // 2^24 - 1

constexpr char kWriteSameApplicationId[] = "PRAGMA application_id=0x51536563;";

bool is_out_of_space(uint32_t status) {
    return status == PSS_FULL || status == PSS_QUOTA || status == PSS_TOO_LARGE;
}

class SqliteEngine final : public Engine {
 public:
    explicit SqliteEngine(std::string path) : path_(std::move(path)) {}
    ~SqliteEngine() override {
        end_scan();
        if (opened_) checkpoint();
    }
    SqliteEngine(const SqliteEngine&) = delete;
    SqliteEngine& operator=(const SqliteEngine&) = delete;

    uint32_t open(uint32_t expected_version);

    uint32_t fetch(std::string_view key, std::string& value) override;
    uint32_t at_or_after(std::string_view key, Record& found) override;
    uint32_t after(std::string_view key, Record& found) override;
    uint32_t put(std::string_view key, std::string_view value) override;
    uint32_t erase(std::string_view key) override;
    uint32_t set_version(uint32_t version) override;
    uint32_t checkpoint() override;

 private:
    enum Activity { kReading, kWriting, kCheckpointing, kActivities };

    uint32_t report(Activity activity, uint32_t status);
    uint32_t report_damage();
    uint32_t step_scan(Record& found);
    void copy_current(Record& found) const;
    void end_scan();
    template <typename Run>
    uint32_t change(Run run);
    void discard_failed_change();
    int read_version();
    int enable_wal();
    int prepare_statements();
    int truncate_wal();

    std::string path_;
    Database database_;
    Statement fetch_, scan_, put_, erase_;  // after database_: finalized before it is closed
    std::string scan_from_;                 // bound to scan_
    std::string scan_key_;
    bool scanning_ = false;  // scan_ is at the record of scan_key_, and holds a snapshot of the database
    bool scan_intact_ = false;
    bool opened_ = false;  // false: the store may have another version, and nothing may be written to it
    uint32_t version_ = 0;
    int changes_in_wal_ = 0;
    uint32_t reported_[kActivities] = {};  // the last status that was logged; PSS_OK at first
    bool damage_reported_ = false;
};

// Logs a status if it differs from the last one of this activity, and returns it. So a full disk takes one
// line of the log rather than one for each request, even if other activities succeed in between.
uint32_t SqliteEngine::report(Activity activity, uint32_t status) {
    static constexpr const char* kNames[] = {"reading", "writing", "checkpointing"};
    if (status == reported_[activity]) return status;
    if (status != PSS_OK)
        log_store_error(path_, status, sqlite3_errmsg(database_.get()));
    else
        syslog(LOG_NOTICE, "store %s: %s works again", path_.c_str(), kNames[activity]);
    reported_[activity] = status;
    return status;
}

// Does not use report(), since reading other records still works.
uint32_t SqliteEngine::report_damage() {
    if (!damage_reported_) log_store_error(path_, PSS_CORRUPT, "the checksum of a record is wrong");
    damage_reported_ = true;
    return PSS_CORRUPT;
}

uint32_t SqliteEngine::open(uint32_t expected_version) {
    const char* vfs = blanking_vfs();
    if (vfs == nullptr) return PSS_NO_MEMORY;
    int result = open_database(path_, vfs, database_);
    if (result == SQLITE_OK) result = execute(database_.get(), kSettings);
    // The first read takes the lock and recovers the WAL after a crash.
    if (result == SQLITE_OK) result = execute(database_.get(), "SELECT 1 FROM record LIMIT 1");
    if (result == SQLITE_OK) result = read_version();
    uint32_t status = report(kReading, status_of_sqlite(result));
    if (status == PSS_OK) status = check_version(path_, version_, expected_version);
    if (status == PSS_OK) status = report(kWriting, status_of_sqlite(enable_wal()));
    if (status == PSS_OK) status = report(kReading, status_of_sqlite(prepare_statements()));
    if (status != PSS_OK) {
        // Leaves file and WAL unchanged. There is no connection if SQLite had no memory for it.
        if (database_ != nullptr)
            sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        return status;
    }
    opened_ = true;
    changes_in_wal_ = 1;  // after a crash the WAL is not empty
    checkpoint();
    return PSS_OK;
}

int SqliteEngine::prepare_statements() {
    sqlite3* database = database_.get();
    int result = fetch_.prepare(database, "SELECT value, sum FROM record WHERE key = ?1");
    if (result == SQLITE_OK)
        result = scan_.prepare(database, "SELECT value, sum, key FROM record WHERE key >= ?1 ORDER BY key");
    if (result == SQLITE_OK)
        result = put_.prepare(database,
                              "INSERT INTO record(key, value, sum) VALUES(?1, ?2, ?3) "
                              "ON CONFLICT(key) DO UPDATE SET value = excluded.value, sum = excluded.sum");
    if (result == SQLITE_OK) result = erase_.prepare(database, "DELETE FROM record WHERE key = ?1");
    return result;
}

int SqliteEngine::read_version() {
    Statement query;
    int result = query.prepare(database_.get(), "PRAGMA user_version");
    if (result == SQLITE_OK) result = query.step();
    if (result == SQLITE_ROW) version_ = static_cast<uint32_t>(query.number(0));
    return result;
}

// A restored copy may be in another journal mode, which would keep old values in its journal.
int SqliteEngine::enable_wal() {
    Statement query;
    int result = query.prepare(database_.get(), "PRAGMA journal_mode=WAL");
    if (result == SQLITE_OK) result = query.step();
    if (result != SQLITE_ROW) return result;
    std::string mode;
    query.column(0, mode);
    return mode == "wal" ? SQLITE_OK : SQLITE_ERROR;
}

uint32_t SqliteEngine::fetch(std::string_view key, std::string& value) {
    const auto reset = fetch_.reset_at_end_of_scope();
    fetch_.bind(1, key);
    const int result = fetch_.step();
    if (result == SQLITE_ROW && !fetch_.read_value(key, value)) return report_damage();
    const uint32_t status = report(kReading, status_of_sqlite(result));
    return status == PSS_OK && result == SQLITE_DONE ? PSS_NO_KEY : status;
}

void SqliteEngine::end_scan() {
    scan_.reset();
    scanning_ = false;
}

uint32_t SqliteEngine::step_scan(Record& found) {
    const int result = scan_.step();
    scanning_ = false;  // in case std::bad_alloc is thrown below
    if (result == SQLITE_ROW) {
        scan_.column(2, found.key);
        found.intact = scan_.read_value(found.key, found.value);
        scan_key_ = found.key;
        scan_intact_ = found.intact;
        scanning_ = true;
        return report(kReading, PSS_OK);
    }
    end_scan();
    const uint32_t status = report(kReading, status_of_sqlite(result));
    return status == PSS_OK ? PSS_NO_KEY : status;
}

void SqliteEngine::copy_current(Record& found) const {
    found.key = scan_key_;
    found.intact = scan_intact_;
    scan_.column(0, found.value);
}

// A caller who reads record after record names the last one each time, so the previous scan is continued
// where possible, here and in after().
uint32_t SqliteEngine::at_or_after(std::string_view key, Record& found) {
    if (scanning_ && scan_key_ == key) {
        copy_current(found);
        return PSS_OK;
    }
    end_scan();
    scan_from_ = key;
    scan_.bind(1, scan_from_);
    return step_scan(found);
}

uint32_t SqliteEngine::after(std::string_view key, Record& found) {
    if (scanning_ && scan_key_ == key) return step_scan(found);
    const std::string from(key);
    const uint32_t status = at_or_after(from, found);
    return status == PSS_OK && found.key == from ? step_scan(found) : status;
}

// Runs a statement that changes the store. `run` returns SQLITE_NOTFOUND if there is nothing to change. If
// there is no space left, the WAL may be what takes it: it is truncated and the statement tried once more.
template <typename Run>
uint32_t SqliteEngine::change(Run run) {
    end_scan();
    const int result = run();
    if (result == SQLITE_NOTFOUND) return PSS_NO_KEY;
    uint32_t status = status_of_sqlite(result);
    ++changes_in_wal_;
    if (is_out_of_space(status) && checkpoint() == PSS_OK) {
        status = status_of_sqlite(run());
        ++changes_in_wal_;
    }
    report(kWriting, status);
    if (status != PSS_OK)
        discard_failed_change();
    else if (changes_in_wal_ >= kMaxChangesInWal || file_extension_failed())
        checkpoint();
    return status;
}

// If only its flush failed, a change is complete in the WAL, and recovery after a crash would apply it. A
// checkpoint removes it from there. If that fails too, an empty commit overwrites it; the flush of that
// commit may also fail.
void SqliteEngine::discard_failed_change() {
    if (checkpoint() != PSS_OK) execute(database_.get(), kWriteSameApplicationId);
}

uint32_t SqliteEngine::put(std::string_view key, std::string_view value) {
    return change([&] {
        const auto reset = put_.reset_at_end_of_scope();
        put_.bind(1, key);
        put_.bind(2, value);
        put_.bind(3, record_checksum(key, value));
        return put_.step();
    });
}

uint32_t SqliteEngine::erase(std::string_view key) {
    return change([&] {
        const auto reset = erase_.reset_at_end_of_scope();
        erase_.bind(1, key);
        const int result = erase_.step();
        const bool found = sqlite3_changes(database_.get()) != 0;
        return result == SQLITE_DONE && !found ? SQLITE_NOTFOUND : result;
    });
}

uint32_t SqliteEngine::set_version(uint32_t version) {
    if (version == version_) return PSS_OK;
    char sql[64];
    snprintf(sql, sizeof sql, "PRAGMA user_version=%d", static_cast<int32_t>(version));
    const uint32_t status = change([&] { return execute(database_.get(), sql); });
    if (status == PSS_OK) version_ = version;
    return status;
}

// SQLite does not flush the truncated WAL. Without the flush, a power failure would restore its contents.
int SqliteEngine::truncate_wal() {
    sqlite3* database = database_.get();
    errno = 0;
    int result = sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_file* wal = nullptr;
    if (result == SQLITE_OK)
        result = sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &wal);
    if (result == SQLITE_OK && wal != nullptr && wal->pMethods != nullptr)
        result = wal->pMethods->xSync(wal, SQLITE_SYNC_NORMAL);
    return result;
}

uint32_t SqliteEngine::checkpoint() {
    if (changes_in_wal_ == 0) return PSS_OK;
    end_scan();
    const uint32_t status = report(kCheckpointing, status_of_sqlite(truncate_wal()));
    if (status == PSS_OK) changes_in_wal_ = 0;
    return status;
}

}  // namespace

uint32_t open_sqlite_engine(const std::string& path, bool create, uint32_t version,
                            std::unique_ptr<Engine>& engine) {
    FileCheck file = check_sqlite_file(path);
    if (file.status == PSS_NO_STORE) {
        if (!create) return PSS_NO_STORE;
        file = {create_sqlite_file(path), "cannot be created"};
        if (file.status == PSS_OK) file = check_sqlite_file(path);
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
