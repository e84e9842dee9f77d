// RClient_Update_Listener: what receives the events of a view update stream (View_Update), in the
// order the server sends them:
//
//   begin_operation(gn)                       the update starts; `gn` becomes the view's new number
//     begin_silo(replica, family)             a SILO's group
//       unload_object(...)                    an object no longer loaded (its name is to go)
//       begin_scope(scope)                    a load scope's group
//         update_object(...)                  an object loaded or changed, with its metadata
//       end_scope()
//     end_silo()
//   end_operation()                           the whole stream has been delivered
//
// The stream's nesting is not checked: calls come in the order of the parts.
//
// Each call returns whether the listener wants more: after the first false nothing more is
// delivered, the rest of the stream is read and thrown away, and the command still reads the
// server's verdict. A listener may instead throw RClient_Listener_Exception (with a code of its own)
// to stop the transfer at once; any other exception a listener lets out is treated the same way, so
// that nothing unwinds through the transfer library.
//
// Calls come on the thread that runs the command, one at a time; a call returns before the next
// part is parsed.
#pragma once

#include <string>

#include "base/tbs.h"
#include "proto/tavrel_records.h"

class RClient_Update_Listener {
 public:
  virtual ~RClient_Update_Listener() = default;

  virtual bool begin_operation(unsigned int operation_gn) = 0;
  virtual bool begin_scope(tavrel_scope const& scope) = 0;
  virtual bool begin_silo(tbs_uuid_s const& replica_uuid, tbs_oid_s const& family_oid) = 0;
  // `path` is "/"-separated; `prev_version` is empty for an object new to the view.
  virtual bool update_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                             std::string const& prev_version, std::string const& curr_version,
                             tavrel_vstat const& obj, tavrel_vstat const& elem) = 0;
  virtual bool unload_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                             tbs_oid_s const& object_oid) = 0;
  virtual bool end_scope() = 0;
  virtual bool end_silo() = 0;
  virtual bool end_operation() = 0;
};
