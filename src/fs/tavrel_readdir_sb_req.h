// Tavrel_Readdir_SB_req: the work of reading one directory (replica uuid + version dbid) from the
// server into the view database, as a scoreboard request: equal reads (same uuid and dbid) merge, so
// one Get_Directory_Contents serves every reader waiting at the same time. The first comer runs
// Tavrel_Metadata::do_readdir_obj; everyone linked to it reads `dirents`, `status` and `message` of
// this request once execute has returned.
//
// A listing that fails half-way leaves names of the directory cached that may no longer stand; the
// request records the directory's oid (inval_oid) instead of invalidating under the scoreboard's mutex,
// and whoever ran it (readdir_obj, Tavrel_BG_Readdir) invalidates after execute has returned.
//
// Fields are written only by execute (under the worker's scoreboard mutex) and read after it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "fs/tavrel_scoreboard.h"

struct tavrel_dirent;

class Tavrel_Readdir_SB_req : public Tavrel_Scoreboard_Request {
 public:
  Tavrel_Readdir_SB_req(const tbs_uuid_s& uuid, uint32_t dbid, bool background);
  ~Tavrel_Readdir_SB_req() override;

  // do_readdir_obj: 1 (done) or 3 (failed, catalogue message 45 added to both messages).
  int execute(int& status, std::string& message) override;
  uint32_t hash() const override { return m_hash; }
  int get_status() const override { return status; }
  std::string get_message() const override { return message; }
  // Same replica uuid and dbid.
  bool equivalent(const Tavrel_Scoreboard_Request* other) const override;

  const tbs_uuid_s& get_uuid() const { return uuid; }
  uint32_t get_dbid() const { return dbid; }
  bool is_background() const { return background; }
  const std::vector<tavrel_dirent>& get_dirents() const { return dirents; }
  // The directory to invalidate after a failed listing (TBS_OID_NULL when none).
  const tbs_oid_s& get_inval_oid() const { return inval_oid; }

 private:
  bool background;
  uint32_t m_hash;
  tbs_uuid_s uuid;
  uint32_t dbid;
  int status = 0;
  std::string message;
  std::vector<tavrel_dirent> dirents;
  tbs_oid_s inval_oid{};
};

typedef Tavrel_Scoreboard<Tavrel_Readdir_SB_req> Tavrel_Readdir_Scoreboard;
