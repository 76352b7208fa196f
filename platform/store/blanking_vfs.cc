#include "platform/store/blanking_vfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>

namespace quill {
namespace {

constexpr size_t kFileHeader = 100;
constexpr size_t kLargestPage = 65536;
constexpr sqlite3_int64 kLogStep = 65536;        // by which a log grows
constexpr sqlite3_int64 kLargestKept = 4 << 20;  // an empty log that is longer gives its room back
constexpr int kLogHeader = 32;
constexpr unsigned char kZeros[kLogStep] = {};

sqlite3_vfs* real_vfs;
sqlite3_vfs vfs;
// The real ones of each kind of file, and those that take their place.
const sqlite3_io_methods *real_file, *real_log;
sqlite3_io_methods blanked_file, blanked_log;
bool scarce;  // the last attempt to take more of it failed

size_t word16(const unsigned char* at) { return static_cast<size_t>(at[0] << 8 | at[1]); }

int write_page(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    const auto size = static_cast<size_t>(amount);
    unsigned char page[kLargestPage];
    if (size <= kLargestPage) {
        memcpy(page, data, size);
        blank_gap(page, size, offset == 0);
        data = page;
    }
    const int result = real_file->xWrite(file, data, amount, offset);
    if (result != SQLITE_OK) scarce = true;
    return result;
}

int write_zeros(sqlite3_file* log, sqlite3_int64 from, sqlite3_int64 to) {
    int result = SQLITE_OK;
    for (; from < to && result == SQLITE_OK; from += kLogStep)
        result = real_log->xWrite(log, kZeros, static_cast<int>(std::min(to - from, kLogStep)), from);
    return result;
}

// Asking for the length makes the file system note the time of the next write more finely, which its flush
// would have to wait for. So it is asked for only where a step is entered.
int write_log(sqlite3_file* log, const void* data, int amount, sqlite3_int64 offset) {
    const sqlite3_int64 last_step = (offset + amount - 1) / kLogStep, needed = (last_step + 1) * kLogStep;
    sqlite3_int64 size = 0;
    const bool enters_step = offset % kLogStep == 0 || offset / kLogStep != last_step;
    if (enters_step && real_log->xFileSize(log, &size) == SQLITE_OK && size < needed) {
        scarce = write_zeros(log, size, needed) != SQLITE_OK;
        if (scarce) real_log->xTruncate(log, size);
    }
    return real_log->xWrite(log, data, amount, offset);
}

bool is_blank(sqlite3_file* log, sqlite3_int64 from, int amount) {
    unsigned char bytes[kLogStep];
    return real_log->xRead(log, bytes, amount, from) == SQLITE_OK &&
           memcmp(bytes, kZeros, static_cast<size_t>(amount)) == 0;
}

// The header goes first, and for good: a log that has lost any other part to a loss of power would bring back
// an earlier state of the database. All of the rest is looked at: emptying may have ended half-way before.
int empty_log(sqlite3_file* log, sqlite3_int64 size) {
    int result = write_zeros(log, 0, kLogHeader);
    if (result == SQLITE_OK) result = real_log->xSync(log, SQLITE_SYNC_NORMAL | SQLITE_SYNC_DATAONLY);
    for (sqlite3_int64 at = kLogHeader; at < size && result == SQLITE_OK; at += kLogStep) {
        const auto amount = static_cast<int>(std::min(size - at, kLogStep));
        if (!is_blank(log, at, amount)) result = write_zeros(log, at, at + amount);
    }
    return result;
}

int truncate_log(sqlite3_file* log, sqlite3_int64 size) {
    sqlite3_int64 before = 0;
    const bool kept =
        size == 0 && !scarce && real_log->xFileSize(log, &before) == SQLITE_OK && before <= kLargestKept;
    return kept && empty_log(log, before) == SQLITE_OK ? SQLITE_OK : real_log->xTruncate(log, size);
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
        real_file = file->pMethods;
        blanked_file = *real_file;
        blanked_file.xWrite = write_page;
        file->pMethods = &blanked_file;
    } else if ((flags & SQLITE_OPEN_WAL) != 0) {
        real_log = file->pMethods;
        blanked_log = *real_log;
        blanked_log.xWrite = write_log;
        blanked_log.xTruncate = truncate_log;
        file->pMethods = &blanked_log;
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

bool room_is_scarce() { return scarce; }

void blank_gap(unsigned char* page, size_t size, bool first) {
    constexpr unsigned char kInteriorIndex = 2, kInteriorTable = 5, kLeafIndex = 10, kLeafTable = 13;
    const size_t base = first ? kFileHeader : 0;
    if (size < base + 12) return;
    const unsigned char* header = page + base;
    const bool leaf = header[0] == kLeafIndex || header[0] == kLeafTable;
    if (!leaf && header[0] != kInteriorIndex && header[0] != kInteriorTable) return;

    const size_t cells = word16(header + 3);
    const size_t content = word16(header + 5) == 0 ? kLargestPage : word16(header + 5);
    const size_t gap = base + (leaf ? 8 : 12) + 2 * cells;
    if (gap < content && content <= size) memset(page + gap, 0, content - gap);
}

}  // namespace quill
