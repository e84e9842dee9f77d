// Tavrel_Metadata_GDC_Listener: stores the entries of one directory listing as they arrive from the
// server. Each entry other than "." and ".." takes the view user's identities and is written with
// add_db_entry in a transaction of its own, in the load scope the reply names for it (the command's
// latest "Xdr_ObjScope"; the default scope when none came). An entry whose object kind the view
// database cannot hold (only directory and file versions and links can stand under a name) stops the
// listing at once: nothing of it is stored. An entry that fails to store keeps the first failure in
// get_status() and the listing goes on; either way the caller sees a half-stored directory and must
// invalidate it.
//
// Used by one thread (the one running the command), under the directory's stripe of g_oid_locks.
#pragma once

#include <cstdint>

#include "base/tbs.h"
#include "wan/get_directory_contents.h"

class Tavrel_Metadata_GDC_Listener : public Get_Directory_Contents_Listener {
 public:
  Tavrel_Metadata_GDC_Listener(const tbs_uuid_s& uuid, uint32_t dir_dbid);
  // The command whose reply feeds this listener (for the entries' load scopes); may stay null.
  void set_command(const Get_Directory_Contents* cmd) { command = cmd; }
  ~Tavrel_Metadata_GDC_Listener() override;

  bool process_dirent(tavrel_extended_dirent* dirent) override;

  // Entries stored (not counting "." and ".."), entries refused or failed, first failure (0: none).
  uint32_t get_count() const { return count; }
  uint32_t get_failed() const { return failed; }
  int get_status() const { return status; }

  // Whether an entry of this object kind can be stored under a name: directory and file versions, links.
  static bool mtype_acceptable(silo_mtype_t mtype);

 private:
  uint32_t count = 0;
  uint32_t failed = 0;
  int status = 0;
  uint32_t dbid;
  tbs_uuid_s uuid;
  const Get_Directory_Contents* command = nullptr;
};
