#include "platform/store/sqlite.h"

#include <libdeflate.h>

#include <cerrno>
#include <new>

#include "platform/store/engine.h"

namespace quill {

int open_database(const std::string& path, const char* vfs, Database& database) {
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    sqlite3* opened = nullptr;
    errno = 0;
    const int result = sqlite3_open_v2(path.c_str(), &opened, kFlags, vfs);
    database.reset(opened);
    return result;
}

int execute(sqlite3* database, const char* sql) {
    errno = 0;
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

// errno is used rather than sqlite3_system_errno(), which does not report failures during a commit.
uint32_t status_of_sqlite(int result) {
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
        return error == EIO ? PSS_IO : PSS_CORRUPT;  // SQLite reports some failed reads as corruption
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
        if (result == SQLITE_IOERR_SHORT_READ) return PSS_IO;  // no call failed, so errno is stale
        [[fallthrough]];
    case SQLITE_CANTOPEN:
        return error == 0 ? PSS_IO : status_of_errno(error);
    default:
        return PSS_ENGINE;
    }
}

int64_t record_checksum(std::string_view key, std::string_view value) {
    uint32_t checksum = 0;
    for (const std::string_view bytes : {key, value})
        checksum = libdeflate_crc32(checksum, bytes.data(), bytes.size());
    return checksum;
}

int Statement::prepare(sqlite3* database, const char* sql) {
    sqlite3_stmt* prepared = nullptr;
    errno = 0;
    const int result = sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    statement_.reset(prepared);
    return result;
}

// SQLite stores a null pointer as NULL, so an empty value is bound by a pointer to an empty string.
void Statement::bind(int index, std::string_view bytes) {
    sqlite3_bind_blob64(statement_.get(), index, bytes.empty() ? "" : bytes.data(), bytes.size(),
                        SQLITE_STATIC);
}

void Statement::bind(int index, int64_t number) { sqlite3_bind_int64(statement_.get(), index, number); }

int Statement::step() {
    errno = 0;
    return sqlite3_step(statement_.get());
}

void Statement::column(int index, std::string& bytes) const {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_.get(), index));
    const auto length = static_cast<size_t>(sqlite3_column_bytes(statement_.get(), index));
    if (data == nullptr && length != 0) throw std::bad_alloc();
    bytes.assign(data == nullptr ? "" : data, length);
}

bool Statement::read_value(std::string_view key, std::string& value) const {
    column(0, value);
    return number(1) == record_checksum(key, value);
}

}  // namespace quill
