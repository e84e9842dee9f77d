// tavrel_db_utls_int: what the files of tavrel_db_utls share. Not for use elsewhere.
#pragma once

#include <cstdint>
#include <string>

#include "ns/ns_cache.h"
#include "ns/ns_silo.h"

namespace tavrel_db_utls {

// Prints the failure of operation `op` on `what` unless its status is one that callers handle as an
// ordinary answer (1022, 1080, 1085, and 1002 when `lookup`).
void report(int st, const char* op, const std::string& what, bool lookup);
// The inode holding the view's names of directory `dir`: a view-private directory itself, else the
// cover of the SILO directory's element. Inside a transaction: 1002 when the element has no cover, 1070
// for an object that is not a directory. view_dir_make, outside any transaction, makes the cover.
int view_dir_in_trans(obj_entry* dir, uint32_t* inode);
int view_dir_make(obj_entry* dir, uint32_t* inode);
// The inode of `obj` as a name may point at it: a view-private object itself, else its element's cover,
// made on first use. Outside any transaction.
int view_obj_make(obj_entry* obj, uint32_t* inode);
// The cached object of the view side of `dir`, or null.
obj_entry* view_dir_obj(obj_entry* dir);
// Copies `text` with its NUL; 1084 when `size` cannot hold it.
int copy_out(const std::string& text, char* buffer, size_t size);
// The silo row of a SILO record (its cached number or, when forgotten, the database's). In a transaction.
int silo_row_in_trans(const view_silo* silo, uint32_t* row);

}  // namespace tavrel_db_utls
