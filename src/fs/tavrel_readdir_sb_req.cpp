#include "fs/tavrel_readdir_sb_req.h"

#include <cstring>

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "fs/tavrel_metadata.h"
#include "proto/tavrel_records.h"

namespace {
uint32_t uuid_hash32(const tbs_uuid_s& uuid) {
  tbs_oid_s as_oid;
  std::memcpy(as_oid.bytes, uuid.bytes, sizeof as_oid.bytes);
  return tbs_oid_to_hash32(as_oid);
}
}  // namespace

Tavrel_Readdir_SB_req::Tavrel_Readdir_SB_req(const tbs_uuid_s& u, uint32_t d, bool bg)
    : background(bg), m_hash(uuid_hash32(u) + d), uuid(u), dbid(d) {}

Tavrel_Readdir_SB_req::~Tavrel_Readdir_SB_req() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Readdir_SB_req", "~Tavrel_Readdir_SB_req");
  trace.writeTrace(TRACE_LEVEL_5, "destroying %p", static_cast<void*>(this));
}

int Tavrel_Readdir_SB_req::execute(int& st, std::string& msg) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Readdir_SB_req", "execute");
  status = Tavrel_Metadata::do_readdir_obj(uuid, dbid, &dirents, &inval_oid);
  st = status;
  if (status != 0) {
    std::string text;
    Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_BG_READDIR, tbs_uuid_to_str(uuid).c_str(),
                        static_cast<int>(dbid));
    message += text;
    msg += text;
    return TAVREL_SB_FAILED;
  }
  return TAVREL_SB_DONE;
}

bool Tavrel_Readdir_SB_req::equivalent(const Tavrel_Scoreboard_Request* other) const {
  auto* o = dynamic_cast<const Tavrel_Readdir_SB_req*>(other);
  return o != nullptr && o->dbid == dbid && o->uuid == uuid;
}
