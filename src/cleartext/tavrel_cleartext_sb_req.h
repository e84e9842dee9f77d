// Tavrel_Cleartext_SB_req: the fetch of one version's cleartext as a scoreboard request. Equal
// requests (same replica and version oid; a view has one text mode) merge, so one GET serves every
// caller waiting at the same time. The first comer runs wan_fetch_cleartext of its Tavrel_Cleartext;
// everyone linked to it reads `status` and `message` of this request once execute has returned.
//
// `cltxt` is dereferenced only inside execute. A background request owns its Tavrel_Cleartext (a copy
// that holds the listener) and deletes it with itself; a foreground one borrows the caller's, which
// outlives execute.
//
// Fields are written only by execute (under the worker's scoreboard mutex) and read after it.
#pragma once

#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "fs/tavrel_scoreboard.h"

class Tavrel_Cleartext;

class Tavrel_Cleartext_SB_req : public Tavrel_Scoreboard_Request {
 public:
  Tavrel_Cleartext_SB_req(bool background, const tbs_uuid_s& replica, const tbs_oid_s& oid, Tavrel_Cleartext* cltxt);
  ~Tavrel_Cleartext_SB_req() override;

  // wan_fetch_cleartext: 1 (done) or 3 (failed, the fetch's message appended to both messages).
  int execute(int& status, std::string& message) override;
  uint32_t hash() const override { return m_hash; }
  int get_status() const override { return status; }
  std::string get_message() const override { return message; }
  // Same replica uuid and version oid.
  bool equivalent(const Tavrel_Scoreboard_Request* other) const override;

  bool is_background() const { return background; }
  Tavrel_Cleartext* get_cltxt() const { return cltxt; }

 private:
  bool background;
  uint32_t m_hash;
  tbs_uuid_s replica;
  tbs_oid_s oid;
  Tavrel_Cleartext* cltxt;
  int status = 0;
  std::string message;
};

typedef Tavrel_Scoreboard<Tavrel_Cleartext_SB_req> Tavrel_Cleartext_Scoreboard;
