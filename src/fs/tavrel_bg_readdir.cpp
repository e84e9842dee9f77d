#include "fs/tavrel_bg_readdir.h"

#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_metadata.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "proto/tavrel_records.h"

Tavrel_BG_Readdir::Tavrel_BG_Readdir(const tbs_uuid_s& u, uint32_t d, Tavrel_Readdir_Scoreboard* sb)
    : Tavrel_Request(LOW_PRIORITY), uuid(u), dbid(d), scoreboard(sb), work(sb->get_req()), owns_reference(true) {}

Tavrel_BG_Readdir::Tavrel_BG_Readdir(Probe, Tavrel_Readdir_Scoreboard* linked)
    : Tavrel_Request(LOW_PRIORITY), uuid(), dbid(0), scoreboard(linked), work(linked->get_req()),
      owns_reference(false) {}

Tavrel_BG_Readdir::~Tavrel_BG_Readdir() {
  if (owns_reference) scoreboard->release();
}

int Tavrel_BG_Readdir::handle_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_BG_Readdir", "handle_request");
  int status = 0;
  std::string message;
  int result = scoreboard->execute(status, message);
  if (result != TAVREL_SB_DONE)
    trace.writeTrace(TRACE_LEVEL_2, "background readdir(%s:%d) failed (%d): %s", tbs_uuid_to_str(uuid).c_str(),
                     static_cast<int>(dbid), status, message.c_str());
  // A background read is always its scoreboard's worker: a half-stored directory is invalidated here,
  // with no scoreboard mutex and no stripe held.
  const tbs_oid_s inval = work->get_inval_oid();
  if (!tbs_oid_is_null(inval)) {
    Tavrel_KFSM_Ioctl ioctl(Tavrel_Metadata::current_view());
    Tavrel_Metadata::view_inval_obj(&ioctl, uuid, inval, 13, 1, 1, 0);
  }
  return status;
}

void Tavrel_BG_Readdir::cancel_request() { scoreboard->cancel(); }

bool Tavrel_BG_Readdir::is_equivalent(const Tavrel_Request* other) const {
  // Called under the thread manager's queue mutex: compares pointers only, takes no lock.
  auto* o = dynamic_cast<const Tavrel_BG_Readdir*>(other);
  return o != nullptr && o != this && o->work == work;
}

void Tavrel_BG_Readdir::promote(Tavrel_Readdir_Scoreboard* linked) {
  Tavrel_Trace trace(TAVREL, "Tavrel_BG_Readdir", "promote");
  Tavrel_BG_Readdir probe(Probe{}, linked);
  Tavrel_Thread_Manager_Base::get_instance()->promote_dependency(&probe);
}
