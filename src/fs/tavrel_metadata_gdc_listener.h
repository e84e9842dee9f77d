// Tavrel_Metadata_GDC_Listener: stores the entries of one directory listing as they arrive from the
// server. Each entry other than "." and ".." is checked (its object kind must be one the view can
// hold, its attributes take the view user's identities) and written with add_db_entry in a
// transaction of its own; a refused or failed entry is counted and keeps the first failure in
// get_status(), and the transfer goes on, so the caller sees a half-stored directory and invalidates it.
//
// Used by one thread (the one running the command), under the directory's stripe of g_oid_locks.
#pragma once

#include <cstdint>

#include "base/tbs.h"
#include "wan/get_directory_contents.h"

class Tavrel_Metadata_GDC_Listener : public Get_Directory_Contents_Listener {
 public:
  Tavrel_Metadata_GDC_Listener(const tbs_uuid_s& uuid, uint32_t dir_dbid);
  ~Tavrel_Metadata_GDC_Listener() override;

  bool process_dirent(tavrel_extended_dirent* dirent) override;

  // Entries stored (not counting "." and ".."), entries refused or failed, first failure (0: none).
  uint32_t get_count() const { return count; }
  uint32_t get_failed() const { return failed; }
  int get_status() const { return status; }

  // Whether the listener takes an object kind from the server: directory, file and link kinds only.
  static bool mtype_acceptable(silo_mtype_t mtype);

 private:
  uint32_t count = 0;
  uint32_t failed = 0;
  int status = 0;
  uint32_t dbid;
  tbs_uuid_s uuid;
};
