#include "cleartext/tavrel_cleartext_sb_req.h"

#include <cstring>

#include "cleartext/tavrel_cleartext.h"
#include "core/tavrel_trace.h"

namespace {
uint32_t uuid_hash32(const tbs_uuid_s& uuid) {
  tbs_oid_s as_oid;
  std::memcpy(as_oid.bytes, uuid.bytes, sizeof as_oid.bytes);
  return tbs_oid_to_hash32(as_oid);
}
}  // namespace

Tavrel_Cleartext_SB_req::Tavrel_Cleartext_SB_req(bool bg, const tbs_uuid_s& r, const tbs_oid_s& o, Tavrel_Cleartext* c)
    : background(bg), m_hash(uuid_hash32(r) + tbs_oid_to_hash32(o)), replica(r), oid(o), cltxt(c) {}

Tavrel_Cleartext_SB_req::~Tavrel_Cleartext_SB_req() {
  if (background) delete cltxt;
}

int Tavrel_Cleartext_SB_req::execute(int& st, std::string& msg) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Cleartext_SB_req", "execute");
  status = cltxt->wan_fetch_cleartext();
  st = status;
  if (status != 0) {
    message = cltxt->get_message();
    msg += message;
    return TAVREL_SB_FAILED;
  }
  return TAVREL_SB_DONE;
}

bool Tavrel_Cleartext_SB_req::equivalent(const Tavrel_Scoreboard_Request* other) const {
  auto* o = dynamic_cast<const Tavrel_Cleartext_SB_req*>(other);
  return o != nullptr && o->oid == oid && o->replica == replica;
}
