// tvr_db_bytes: byte chains, the tails of strings longer than their record's inline field.
//
// A chain belongs to one owner row (OWNER_DBA in every link). Its head is a DB_BYTES row of 90 bytes;
// the rest of the data is cut from the front: while more than 90 bytes remain, a DB_BYTES_MED row takes
// up to 232; a remainder of 90 or less takes one DB_BYTES_SMALL row. The links are members of the
// head's DB_BYTES_SET in order. So a tail of 90 bytes is a head alone, 91 a head and a 1-byte small
// row, 323 a head, a 232-byte medium row and a 1-byte small row. The length is not stored in the
// chain: the owner row keeps it, and readers pass it in; a chain shorter or longer than that length,
// or a link with another owner, is reported and gives 1008.
//
// All functions run inside a transaction (tavrel_engine_db.h); create and delete inside a write one.
// tvr_db_bytes_delete keeps the caller's engine positions (it runs in the middle of set walks);
// tvr_db_bytes_create leaves the owner as the current record (a caller stores the owner row first, then
// its chain, then writes the head's DBA into the owner). tvr_db_bytes_read and tvr_db_bytes_cmp move only
// the current record and the positions of DB_BYTES_SET, so a caller's key walk or walk of another set
// goes on undisturbed.
#pragma once

#include <cstddef>

#include "db/rec/tavrel_db_schema.h"

// Stores `len` (> 0) bytes owned by `owner`; *head receives the head row's DBA.
int tvr_db_bytes_create(DB_ADDR owner, const void* data, size_t len, DB_ADDR* head);
// Reads the chain of exactly `len` bytes into `buffer`.
int tvr_db_bytes_read(DB_ADDR owner, DB_ADDR head, void* buffer, size_t len);
// Compares the chain (of exactly `len` bytes) with `data`; *differ = 0 when equal, else non-zero.
int tvr_db_bytes_cmp(DB_ADDR owner, DB_ADDR head, const void* data, size_t len, int* differ);
// Deletes the chain; a head of 0 does nothing.
int tvr_db_bytes_delete(DB_ADDR head);
