// A VFS for SQLite that leaves no deleted bytes in the database file and its write-ahead log (WAL).
//
// secure_delete overwrites the cells that SQLite frees, but not the copies that remain in the unallocated gap
// of a page when the tree is rebalanced; a deleted secret could stay there for years. The gap is unused by
// definition of the file format (https://www.sqlite.org/fileformat.html, 1.6), so this VFS writes zeros in
// its place.
//
// When SQLite truncates the WAL, it is overwritten with zeros instead, and it grows by 64 KiB at a time.
// Commits then overwrite existing blocks, and their flush need not update the file's length. After a failure
// to extend a file, the WAL is truncated, to give its space back.
//
// Opening fails for a file that can only be opened for reading. SQLite would fall back to that, and a failure
// of the device at that moment would make the store read-only until the program is restarted.
#pragma once

#include <cstddef>

namespace quill {

// Registers the VFS on the first call. Returns its name, or null if SQLite had no memory.
const char* blanking_vfs();

// Whether the last attempt to extend the WAL failed, or a write to the database since. A checkpoint then
// frees the space that the WAL takes.
bool file_extension_failed();

// Overwrites with zeros the unallocated gap of a b-tree page. Leaves other and malformed pages unchanged.
// `first` is true for page 1, which begins with the file's header.
void blank_gap(unsigned char* page, size_t size, bool first);

}  // namespace quill
