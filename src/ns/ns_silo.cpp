#include "ns/ns_silo.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "base/imsg.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "ns/ns_lvut.h"
#include "ns/tavrel_db_utls.h"
#include "proto/kfsm_status.h"

namespace {

view_silo* silo_tab;  // under tavrel_cache_mutex()

// Statuses their callers report themselves: silo_print_error passes them on without a word.
constexpr int kQuietStatuses[] = {1019, 1020, 1078};

struct silo_row {
  uint32_t dbid = 0;
  std::string host, path;
};

// Reads the replica's row (tavrel_db_silo_read: a read transaction of its own). 1002 without a row;
// 1008 for a stored text without the ':' between host and path; 1084 for a host or path that cannot
// fit its buffer.
int read_row(const tbs_uuid_s& uuid, silo_row* row) {
  Tavrel_Trace trace(TAVREL, "ns_silo", "read_row");
  char host[NS_SILO_TEXT_MAX], path[NS_SILO_TEXT_MAX];
  int st = tavrel_db_silo_read(uuid, &row->dbid, host, sizeof host, path, sizeof path);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "SILO %s: %d", tbs_uuid_to_str(uuid).c_str(), st);
    return st;
  }
  row->host = host;
  row->path = path;
  return 0;
}

void take_row(view_silo* silo, silo_row&& row) {
  silo->db_dbid = row.dbid;
  silo->host = std::move(row.host);
  silo->path = std::move(row.path);
  silo->db_read = true;
}

// Reads the row of a record that has forgotten it. 0, 1002 (no row yet), or the failure.
int refresh(view_silo* silo) {
  if (silo->db_dbid != 0) return 0;
  silo_row row;
  int st = read_row(silo->uuid, &row);
  if (st == 0) take_row(silo, std::move(row));
  return st;
}

view_silo* new_record(const tbs_uuid_s& uuid, int* status) {
  view_silo* silo = new (std::nothrow) view_silo;
  if (silo == nullptr) {
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    *status = TBS_ST_INTERNAL;
    return nullptr;
  }
  silo->uuid = uuid;
  silo->gen = -1;
  fstat_update_lvut(silo, nullptr, 2);
  silo->next = silo_tab;
  silo_tab = silo;
  return silo;
}

std::string silo_name(const view_silo* silo) {
  if (silo == nullptr) return "";
  return silo->tag.empty() ? tbs_uuid_to_str(silo->uuid) : silo->tag;
}

}  // namespace

view_silo* silo_tab_head() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  return silo_tab;
}

view_silo* silo_find_cached(const tbs_uuid_s& uuid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (view_silo* s = silo_tab; s != nullptr; s = s->next)
    if (s->uuid == uuid) return s;
  return nullptr;
}

view_silo* silo_create(const tbs_uuid_s& uuid, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_silo", "silo_create");
  *status = 0;
  view_silo* silo = silo_find_cached(uuid);
  if (silo != nullptr) {
    int st = refresh(silo);
    if (st != 0 && st != TBS_ST_NOT_FOUND) {
      *status = TBS_ST_UNKNOWN_SILO;
      return nullptr;
    }
    return silo;
  }
  silo = new_record(uuid, status);
  if (silo == nullptr) return nullptr;
  int st = refresh(silo);
  if (st != 0 && st != TBS_ST_NOT_FOUND) {
    trace.writeTrace(TRACE_LEVEL_2, "cannot read SILO %s: %d", tbs_uuid_to_str(uuid).c_str(), st);
    silo_dispose(silo);
    *status = TBS_ST_UNKNOWN_SILO;
    return nullptr;
  }
  return silo;
}

view_silo* silo_find(const tbs_uuid_s& uuid, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_silo", "silo_find");
  *status = 0;
  view_silo* silo = silo_find_cached(uuid);
  if (silo != nullptr) {
    int st = refresh(silo);
    if (st != 0 && st != TBS_ST_NOT_FOUND) {
      *status = TBS_ST_UNKNOWN_SILO;
      return nullptr;
    }
    return silo;
  }
  silo_row row;
  int st = read_row(uuid, &row);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "unknown SILO %s: %d", tbs_uuid_to_str(uuid).c_str(), st);
    *status = TBS_ST_UNKNOWN_SILO;
    return nullptr;
  }
  silo = new_record(uuid, status);
  if (silo != nullptr) take_row(silo, std::move(row));
  return silo;
}

void silo_dispose(view_silo* silo) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  cache_flush_silo(silo);
  for (view_silo** p = &silo_tab; *p != nullptr; p = &(*p)->next) {
    if (*p == silo) {
      *p = silo->next;
      break;
    }
  }
  delete silo;
}

void silo_flush_silo_uuid(const tbs_uuid_s& uuid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (view_silo* silo = silo_find_cached(uuid)) cache_flush_silo(silo);
}

void silo_cache_flush() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (view_silo* s = silo_tab; s != nullptr; s = s->next) {
    s->db_read = false;
    cache_flush_silo(s);
    s->db_dbid = 0;
  }
}

void silo_tab_dispose_all() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  while (silo_tab != nullptr) silo_dispose(silo_tab);
}

int tavrel_silo_get_path(const tbs_uuid_s& uuid, char* host, size_t host_size, char* path, size_t path_size) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  silo_row row;
  view_silo* silo = silo_find_cached(uuid);
  if (silo != nullptr && silo->db_read) {
    row.host = silo->host;
    row.path = silo->path;
  } else {
    int st = read_row(uuid, &row);
    if (st == TBS_ST_NOT_FOUND) return TBS_ST_UNKNOWN_SILO;
    if (st != 0) return st;
  }
  if (row.host.size() >= host_size || row.path.size() >= path_size) return TBS_ST_TOO_LONG;
  memcpy(host, row.host.c_str(), row.host.size() + 1);
  memcpy(path, row.path.c_str(), row.path.size() + 1);
  return 0;
}

int silo_print_error(view_silo* silo, const char* operation, const char* name, int status) {
  for (int quiet : kQuietStatuses)
    if (status == quiet) return status;
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  const std::string tag = silo_name(silo);
  const char* error = tbs_strerror(status);
  const char* where = silo != nullptr ? silo->path.c_str() : "";
  const char* host = silo != nullptr ? silo->host.c_str() : "";
  if (strcmp(operation, "silo_ver_construct_cltxt") == 0 || strcmp(operation, "silo_ver_construct_cltxt_pname") == 0) {
    std::string text = imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_CONSTRUCT_CLTXT, name != nullptr ? name : "", error);
    imsg_print(IMSG_ERR, "%s", text.c_str());
  } else if (name != nullptr && *name != '\0') {
    imsg_print(IMSG_ERR, "Unexpected error in SILO \"%s\" op %s (%s):%s\nSee %s on host %s\n", tag.c_str(), operation,
               name, error, where, host);
  } else {
    imsg_print(IMSG_ERR, "Unexpected error in SILO \"%s\" op %s:%s\nSee %s on host %s\n", tag.c_str(), operation, error,
               where, host);
  }
  return status == TBS_ST_FAILURE ? TBS_ST_NO_RESOURCES : status;
}

int silo_print_error_oid(view_silo* silo, const char* operation, const tbs_oid_s& oid, int status) {
  return silo_print_error(silo, operation, tbs_oid_to_str(oid).c_str(), status);
}

int silo_print_error_dbid(view_silo* silo, const char* operation, uint32_t dbid, int status) {
  char name[24];
  snprintf(name, sizeof name, "0x%lX", static_cast<unsigned long>(dbid));
  return silo_print_error(silo, operation, name, status);
}

int silo_print_error_dirname(view_silo* silo, const char* operation, uint32_t dir_dbid, const char* name,
                             int status) {
  char prefix[24];
  snprintf(prefix, sizeof prefix, "0x%lX->", static_cast<unsigned long>(dir_dbid));
  return silo_print_error(silo, operation, (std::string(prefix) + (name != nullptr ? name : "")).c_str(), status);
}
