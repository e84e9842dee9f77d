// ns_silo: the repository table, the name service's record of each SILO replica the view has met.
//
// The records form the list silo_tab; a new record goes to its front. A record starts without its
// database row (db_dbid 0) and takes it from the view database's SILO row: the stored "host:path" is
// split at the first ':' into host and path (each must fit 1024 bytes with its NUL, else 1084; a text
// without ':' is damaged: 1008). A record lives until silo_dispose; flushing the cache keeps the record
// but forgets its row (db_dbid 0, db_read false), so the next silo_create / silo_find reads it again.
//
// Objects of the object cache point at their record (obj_entry::silo) and the record counts them
// (obj_count); it holds one reference on its root object and one on its not-found anchor (the dbid-1
// object names that resolve to nothing hang on).
//
// Locks: everything here runs under tavrel_cache_mutex (taken by each function; recursive). Reading
// the row opens a read transaction of the view database, so the engine mutex is taken under the cache
// mutex, which is the lock order.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <list>
#include <string>

#include "base/tbs.h"
#include "ns/ns_cache.h"

constexpr size_t NS_SILO_TEXT_MAX = 1024;  // buffer of the host and of the path, NUL included

// An event for the SILO that is held until it can be delivered; the list is the record's and goes
// with it.
struct view_silo_event {
  int kind;
  tbs_oid_s oid;
};

struct view_silo {
  view_silo* next = nullptr;
  obj_entry* not_found = nullptr;  // the dbid-1 anchor; holds a reference
  obj_entry* root = nullptr;       // root object; holds a reference
  tbs_uuid_s uuid{};
  int32_t gen = -1;
  std::string host, path;  // from the row, as silo_get_path reports them
  std::string tag;         // the SILO's tag for messages (empty: the uuid's text is used)
  uint32_t db_dbid = 0;    // the row's number in the view database; 0 until read
  bool db_read = false;    // the row was read (cleared when the cache is flushed)
  struct timeval lvut = {0, 0};
  long obj_count = 0;      // cached objects of this SILO
  std::list<view_silo_event> pending_events;
};

// The head of silo_tab (under tavrel_cache_mutex).
view_silo* silo_tab_head();

// The cached record of a replica, or null.
view_silo* silo_find_cached(const tbs_uuid_s& uuid);
// The record of a replica, made when not cached: its LVUT starts at the view time (counted as reason
// 2) and its row is read; a replica without a row is kept (status 0, db_dbid 0). A read failure
// other than "no row" gives null and 1016 (a new record is disposed of, a cached one kept).
view_silo* silo_create(const tbs_uuid_s& uuid, int* status);
// The record of a replica the view database knows: cached (its row read again if forgotten) or made
// when the row exists. Null and 1016 for a replica without a row or whose row cannot be read.
view_silo* silo_find(const tbs_uuid_s& uuid, int* status);
// Flushes the SILO's objects, unlinks the record and frees it with its pending events.
void silo_dispose(view_silo* silo);
// cache_flush_silo of the replica's record if cached.
void silo_flush_silo_uuid(const tbs_uuid_s& uuid);
// For every record: mark it flushed, flush its objects, forget its row.
void silo_cache_flush();
// Disposes of every record (the end of the view and tests).
void silo_tab_dispose_all();

// Host and path of a replica from its record or, when it has none, from the view database. 1084 when
// a buffer of `size` bytes cannot hold one of them with its NUL, 1016 for an unknown replica.
int tavrel_silo_get_path(const tbs_uuid_s& uuid, char* host, size_t host_size, char* path, size_t path_size);

// Reports an unexpected status of `operation` on the SILO and returns the status to pass on: 1019,
// 1020 and 1078 pass silently; 1001 is reported and becomes 1009; any other is reported as it is.
int silo_print_error(view_silo* silo, const char* operation, const char* name, int status);
int silo_print_error_oid(view_silo* silo, const char* operation, const tbs_oid_s& oid, int status);
int silo_print_error_dbid(view_silo* silo, const char* operation, uint32_t dbid, int status);
int silo_print_error_dirname(view_silo* silo, const char* operation, uint32_t dir_dbid, const char* name,
                             int status);
