// A VFS for SQLite that writes no leftovers to the database file.
//
// secure_delete makes SQLite zero the cells that it frees, but not the copies that stay behind in a page's
// unallocated gap when a page is rebuilt to balance the tree: a deleted secret could stand there for years.
// The gap is free by definition of the file format (https://www.sqlite.org/fileformat.html, 1.6), so this VFS
// zeroes it in every page on its way to the file.
#pragma once

#include <cstddef>

namespace quill {

// Name to open databases with; null when SQLite could not register it.
const char* blanking_vfs();

// Zeroes the gap of a b-tree page; other pages and malformed ones stay as they are. `first` is page 1, which
// begins with the file's header.
void blank_gap(unsigned char* page, size_t size, bool first);

}  // namespace quill
