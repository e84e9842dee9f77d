// The agent's RPCs other than login/logout and the cleartext GET: Get_SILOInfo, Get_ConfigSpec,
// Set_ConfigSpec, Get_Metadata, Lookup, Get_Directory_Contents and View_Update (update_stream.h).
//
// Each handler returns the whole reply document (ending in Status 0) or throws ServerError, which the
// caller turns into a Status-only reply. On-demand replies record what they sent in the view's
// served set. Views named by an unknown ViewUuid are created with the default rules.
#pragma once

#include <memory>
#include <string>

#include "base/tbs.h"
#include "server/args.h"

namespace tavrel_server {

class WanServer;

// A reply produced in pieces. next() gives the next piece (possibly empty) and true, or false once
// the document has ended; it never throws: a failure after the first piece ends the document with a
// non-zero Status part.
class ReplyStream {
 public:
  virtual ~ReplyStream() = default;
  virtual bool next(std::string* out) = 0;
  // The Status code sent, -1 until the document has ended.
  virtual tbs_status_t final_status() const = 0;
};

// Get_Directory_Contents as a stream of entry batches. Checks the arguments and finds the directory
// before returning (ServerError then, with nothing sent); holds the view's read lock and one read
// transaction until the stream is destroyed.
std::unique_ptr<ReplyStream> start_directory_contents(WanServer& srv, const Args& args);

// Whether `rpc` names one of the handlers here.
bool is_agent_rpc(const std::string& rpc);
std::string run_agent_rpc(WanServer& srv, const std::string& rpc, const Args& args);

}  // namespace tavrel_server
