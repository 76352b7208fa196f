// SQLite for the engine and for the code that creates store files: owning types, statements, statuses.
//
// Functions that return int return a result code of SQLite.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/block.h"

namespace quill {

using Database = std::unique_ptr<sqlite3, Release<sqlite3_close_v2>>;

constexpr uint32_t kApplicationId = 0x51536563;  // "QSec", at offset 68 of the database file's header

// Opens an existing database file for reading and writing. `vfs` is a registered VFS, or null for SQLite's
// default. On failure, `database` may hold a connection that only serves sqlite3_errmsg().
int open_database(const std::string& path, const char* vfs, Database& database);

// Runs SQL statements that return no rows. Clears errno first, for status_of_sqlite().
int execute(sqlite3* database, const char* sql);

// Maps a result code to a PSS status; all mapping of SQLite's errors happens here. For I/O errors the system
// call's errno decides, so the caller clears errno before it calls SQLite.
uint32_t status_of_sqlite(int result);

// CRC-32 of key and value, stored with each record. Detects accidental damage only: whoever can write the
// file can also write a matching checksum.
int64_t record_checksum(std::string_view key, std::string_view value);

// A prepared statement. Indexes of parameters count from 1, those of columns from 0, as in SQLite.
class Statement {
 public:
    int prepare(sqlite3* database, const char* sql);

    // `bytes` must stay valid until reset().
    void bind(int index, std::string_view bytes);
    void bind(int index, int64_t number);

    int step();
    void reset() { sqlite3_reset(statement_.get()); }

    // Copies a blob or text column of the current row. Throws std::bad_alloc.
    void column(int index, std::string& bytes) const;
    int64_t number(int index) const { return sqlite3_column_int64(statement_.get(), index); }

    // Copies the value from column 0 and verifies its checksum in column 1. Returns false if that is wrong;
    // `value` must not be used then.
    bool read_value(std::string_view key, std::string& value) const;

    // Resets the statement when the returned object goes out of scope.
    using ScopedReset = std::unique_ptr<sqlite3_stmt, Release<sqlite3_reset>>;
    ScopedReset reset_at_end_of_scope() { return ScopedReset(statement_.get()); }

 private:
    std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>> statement_;
};

}  // namespace quill
