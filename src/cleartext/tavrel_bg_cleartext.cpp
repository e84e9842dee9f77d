#include "cleartext/tavrel_bg_cleartext.h"

#include "base/imsg.h"
#include "cleartext/tavrel_bg_cleartext_listener.h"
#include "cleartext/tavrel_cleartext.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "proto/tavrel_status.h"

Tavrel_BG_Cleartext::Tavrel_BG_Cleartext(Tavrel_Cleartext_Scoreboard* sb)
    : Tavrel_Request(LOW_PRIORITY), scoreboard(sb), work(sb->get_req()) {}

Tavrel_BG_Cleartext::~Tavrel_BG_Cleartext() { scoreboard->release(); }

int Tavrel_BG_Cleartext::execute(int& status, std::string& message) { return scoreboard->execute(status, message); }

namespace {
// The listener of a background fetch (the request that does the work owns the copy that holds it).
Tavrel_BG_Cleartext_listener* listener_of(const Tavrel_Cleartext_SB_req* work) {
  return work->is_background() && work->get_cltxt() ? work->get_cltxt()->get_listener() : nullptr;
}
}  // namespace

int Tavrel_BG_Cleartext::handle_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_BG_Cleartext", "handle_request");
  int status = 0;
  std::string message;
  int result = execute(status, message);
  Tavrel_BG_Cleartext_listener* listener = listener_of(work);
  if (result == TAVREL_SB_DONE) {
    if (listener) listener->completed();
    return status;
  }
  if (status == 0) status = TAVREL_ST_FAILURE;
  std::string text;
  Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_BG_CLTXT, status, message.c_str());
  imsg_print(IMSG_ERR, "%s", text.c_str());
  trace.writeTrace(TRACE_LEVEL_2, "background cleartext failed (%d): %s", status, message.c_str());
  if (listener) listener->failed(status, message);
  return status;
}

void Tavrel_BG_Cleartext::cancel_request() {
  scoreboard->cancel();
  if (Tavrel_BG_Cleartext_listener* listener = listener_of(work)) listener->failed(TAVREL_ST_VIEW_ENDING, std::string());
}

bool Tavrel_BG_Cleartext::is_equivalent(const Tavrel_Request* other) const {
  // Called under the thread manager's queue mutex: compares pointers only, takes no lock.
  auto* o = dynamic_cast<const Tavrel_BG_Cleartext*>(other);
  return o != nullptr && o != this && o->work == work;
}
