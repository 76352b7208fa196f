// A VFS for SQLite that leaves no leftovers in the database file and its write-ahead log.
//
// secure_delete makes SQLite zero the cells that it frees, but not the copies that stay behind in a page's
// unallocated gap when a page is rebuilt to balance the tree: a deleted secret could stand there for years.
// The gap is free by definition of the file format (https://www.sqlite.org/fileformat.html, 1.6), so this VFS
// zeroes it in every page on its way to the file.
//
// A log that SQLite wants cut off is overwritten with zeros instead, and one that must grow does so by many
// frames at once. A commit then rewrites bytes that the file has already, and its flush need not wait for the
// file system's notes on a new length. Where room was scarce lately the log is cut off after all.
//
// It also refuses what cannot be opened for writing. SQLite would go on reading it, and a store whose device
// failed for a moment just then would refuse every change until its program is started anew.
#pragma once

#include <cstddef>

namespace quill {

// Name to open databases with; null when SQLite had no memory to register it.
const char* blanking_vfs();

// The last attempt to make a file longer failed. What the log has taken may then be what the database lacks.
bool room_is_scarce();

// Zeroes the gap of a b-tree page; other pages and malformed ones stay as they are. `first` is page 1, which
// begins with the file's header.
void blank_gap(unsigned char* page, size_t size, bool first);

}  // namespace quill
