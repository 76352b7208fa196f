#include "platform/store/blanking_vfs.h"

#include <sqlite3.h>

#include <cstring>

namespace quill {
namespace {

constexpr size_t kFileHeader = 100;
constexpr size_t kLargestPage = 65536;

sqlite3_vfs* real_vfs;
sqlite3_vfs vfs;
sqlite3_io_methods methods;  // the real ones but for the write
int (*real_write)(sqlite3_file*, const void*, int, sqlite3_int64);

size_t word16(const unsigned char* at) { return static_cast<size_t>(at[0] << 8 | at[1]); }

int write_blanked(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    const auto size = static_cast<size_t>(amount);
    if (size > kLargestPage) return real_write(file, data, amount, offset);
    unsigned char page[kLargestPage];
    memcpy(page, data, size);
    blank_gap(page, size, offset == 0);
    return real_write(file, page, amount, offset);
}

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    const int result = real_vfs->xOpen(real_vfs, name, file, flags, out_flags);
    if (result != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return result;
    methods = *file->pMethods;
    real_write = methods.xWrite;
    methods.xWrite = write_blanked;
    file->pMethods = &methods;
    return result;
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
    static const bool registered = register_vfs();
    return registered ? vfs.zName : nullptr;
}

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
