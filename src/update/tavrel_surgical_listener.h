// Tavrel_Surgical_Listener: applies the answer to an update of single paths. The server sends, per
// SILO, each object named and, for a directory, its entries; there are no scopes, no unloads and no
// new view GN. Each object is stored under its name in its parent (found by element OID, message 71)
// in the default scope at the view's current GN, the name service and the kernel forget the name, the
// update log gets its line, and the cleartext of a file version is fetched in the background. A SILO
// root is refused (message 70); scope parts are refused as internal errors (message 60). Hijacked files
// are left alone. Failures set the update's status as for Tavrel_View_db_listener.
#pragma once

#include "update/tavrel_view_db_listener.h"

class Tavrel_Surgical_Listener : public Tavrel_View_db_listener {
 public:
  explicit Tavrel_Surgical_Listener(Tavrel_Update* update) : Tavrel_View_db_listener(update) {}

  bool begin_operation(unsigned int gn) override;
  bool begin_scope(tavrel_scope const& scope) override;
  bool begin_silo(tbs_uuid_s const& replica_uuid, tbs_oid_s const& family_oid) override;
  bool update_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                     std::string const& prev_version, std::string const& curr_version, tavrel_vstat const& obj,
                     tavrel_vstat const& elem) override;
  bool unload_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                     tbs_oid_s const& object_oid) override;
  bool end_scope() override;
  bool end_silo() override;
  bool end_operation() override;
};
