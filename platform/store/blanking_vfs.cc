#include "platform/store/blanking_vfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>

namespace quill {
namespace {

constexpr size_t kFileHeaderSize = 100;
constexpr size_t kMaxPageSize = 65536;
constexpr sqlite3_int64 kWalStep = 65536;        // the WAL grows by so many bytes
constexpr sqlite3_int64 kMaxEmptyWal = 4 << 20;  // a longer WAL is truncated when it is emptied
constexpr int kWalHeaderSize = 32;
constexpr unsigned char kZeros[kWalStep] = {};

sqlite3_vfs* real_vfs;
sqlite3_vfs vfs;
// The methods of SQLite's own VFS for each kind of file, and those that replace them.
const sqlite3_io_methods *real_database, *real_wal;
sqlite3_io_methods our_database, our_wal;
bool extension_failed;

size_t word16(const unsigned char* at) { return static_cast<size_t>(at[0] << 8 | at[1]); }

int write_page(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    const auto size = static_cast<size_t>(amount);
    unsigned char page[kMaxPageSize];
    if (size <= kMaxPageSize) {
        memcpy(page, data, size);
        blank_gap(page, size, offset == 0);
        data = page;
    }
    const int result = real_database->xWrite(file, data, amount, offset);
    if (result != SQLITE_OK) extension_failed = true;
    return result;
}

int write_zeros(sqlite3_file* wal, sqlite3_int64 from, sqlite3_int64 to) {
    int result = SQLITE_OK;
    for (; from < to && result == SQLITE_OK; from += kWalStep)
        result = real_wal->xWrite(wal, kZeros, static_cast<int>(std::min(to - from, kWalStep)), from);
    return result;
}

// The file's length is queried only where a write begins a step: a query makes the file system record the
// time of the next write with finer granularity, which the flush would have to wait for.
int write_wal(sqlite3_file* wal, const void* data, int amount, sqlite3_int64 offset) {
    const sqlite3_int64 last_step = (offset + amount - 1) / kWalStep, needed = (last_step + 1) * kWalStep;
    sqlite3_int64 size = 0;
    const bool begins_step = offset % kWalStep == 0 || offset / kWalStep != last_step;
    if (begins_step && real_wal->xFileSize(wal, &size) == SQLITE_OK && size < needed) {
        extension_failed = write_zeros(wal, size, needed) != SQLITE_OK;
        if (extension_failed) real_wal->xTruncate(wal, size);
    }
    return real_wal->xWrite(wal, data, amount, offset);
}

bool is_zero(sqlite3_file* wal, sqlite3_int64 from, int amount) {
    unsigned char bytes[kWalStep];
    return real_wal->xRead(wal, bytes, amount, from) == SQLITE_OK &&
           memcmp(bytes, kZeros, static_cast<size_t>(amount)) == 0;
}

// Overwrites the WAL with zeros. The header is overwritten and flushed first: if a power failure interrupted
// the rest, recovery would apply what is left of a WAL with a valid header, and so restore an earlier state
// of the database. All the rest is checked, since it may not have been overwritten completely the last time.
int zero_wal(sqlite3_file* wal, sqlite3_int64 size) {
    int result = write_zeros(wal, 0, kWalHeaderSize);
    if (result == SQLITE_OK) result = real_wal->xSync(wal, SQLITE_SYNC_NORMAL | SQLITE_SYNC_DATAONLY);
    for (sqlite3_int64 at = kWalHeaderSize; at < size && result == SQLITE_OK; at += kWalStep) {
        const auto amount = static_cast<int>(std::min(size - at, kWalStep));
        if (!is_zero(wal, at, amount)) result = write_zeros(wal, at, at + amount);
    }
    return result;
}

int truncate_wal(sqlite3_file* wal, sqlite3_int64 size) {
    sqlite3_int64 before = 0;
    const bool keep_space = size == 0 && !extension_failed &&
                            real_wal->xFileSize(wal, &before) == SQLITE_OK && before <= kMaxEmptyWal;
    return keep_space && zero_wal(wal, before) == SQLITE_OK ? SQLITE_OK : real_wal->xTruncate(wal, size);
}

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    int granted = 0;
    const int result = real_vfs->xOpen(real_vfs, name, file, flags, &granted);
    if (out_flags != nullptr) *out_flags = granted;
    if (result != SQLITE_OK) return result;
    if ((flags & SQLITE_OPEN_READWRITE) != 0 && (granted & SQLITE_OPEN_READONLY) != 0) {
        file->pMethods->xClose(file);
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN;
    }
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0) {
        real_database = file->pMethods;
        our_database = *real_database;
        our_database.xWrite = write_page;
        file->pMethods = &our_database;
    } else if ((flags & SQLITE_OPEN_WAL) != 0) {
        real_wal = file->pMethods;
        our_wal = *real_wal;
        our_wal.xWrite = write_wal;
        our_wal.xTruncate = truncate_wal;
        file->pMethods = &our_wal;
    }
    return SQLITE_OK;
}

bool register_vfs() {
    real_vfs = sqlite3_vfs_find(nullptr);
    if (real_vfs == nullptr) return false;
    vfs = *real_vfs;
    vfs.zName = "quill-blanking";
    vfs.xOpen = open_file;
    return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
}

}  // namespace

const char* blanking_vfs() {
    static bool registered = false;
    registered = registered || register_vfs();
    return registered ? vfs.zName : nullptr;
}

bool file_extension_failed() { return extension_failed; }

void blank_gap(unsigned char* page, size_t size, bool first) {
    constexpr unsigned char kInteriorIndex = 2, kInteriorTable = 5, kLeafIndex = 10, kLeafTable = 13;
    const size_t base = first ? kFileHeaderSize : 0;
    if (size < base + 12) return;
    const unsigned char* header = page + base;
    const bool leaf = header[0] == kLeafIndex || header[0] == kLeafTable;
    if (!leaf && header[0] != kInteriorIndex && header[0] != kInteriorTable) return;

    const size_t cells = word16(header + 3);
    const size_t content = word16(header + 5) == 0 ? kMaxPageSize : word16(header + 5);
    const size_t gap = base + (leaf ? 8 : 12) + 2 * cells;
    if (gap < content && content <= size) memset(page + gap, 0, content - gap);
}

}  // namespace quill
