// Tavrel_View_db: the view's database as the rest of the agent sees it. The database itself is process-
// wide (src/db/tavrel_engine_db.h: one view per agent process); this class gives its life and its
// view-level rows. The object made by start_db stands for the open database of the storage it names.
//
// start_db enters the storage directory (the database works relative to the working directory), sets up
// the container pool ".s", reads `tavrelDbSync` from tavrel.conf ("deferred", the default, or "commit"; anything else is reported and
// taken as "deferred"), and opens, creates or repairs the database through its state file.
//
// The statics below the life calls translate identifiers, keep the load scopes and store what the server
// told about an object. Each runs in a transaction of its own (so none may be called inside one the thread
// holds), and a failed call leaves the database as it was.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "proto/tavrel_records.h"

class Tavrel_View_db {
 public:
  explicit Tavrel_View_db(const std::string& storage) : m_storage(storage) {}
  const std::string& storage() const { return m_storage; }

  // 0, or a status of the 1000 range: 1008 when the storage cannot be entered or the database cannot
  // be opened or made; the database then stays closed. *db receives the object in both cases.
  static int start_db(const std::string& storage, const std::string& uuid_text, Tavrel_View_db** db);
  // Closes the database (purified: a clean close leaves it idle) and deletes the object.
  static void close_db(Tavrel_View_db* db);
  // Closes and starts the database again from its state file.
  static int reset_db();
  // The view's generation number, and the view row (made at view creation).
  static int view_gn(unsigned& gn);
  static int create_view_row(const std::string& uuid_text, unsigned gn);

  // ---- load scopes (statuses of the 1000 range) ----
  // A fixed underlying type, so that an unknown value can be checked for (and refused) without undefined
  // behaviour.
  enum ScopeListType : int {
    ALL_SCOPES = 0,      // every scope, the default one included
    ACTIVE_SCOPES = 1,   // without those marked removed or left by an interrupted load
    REMOVED_SCOPES = 2,  // only those
  };
  // Creates the load scope `oid` named `name` (the load rule's path) at generation `gn`; an existing one
  // takes the generation, goes idle and keeps its name.
  static int add_lr_scope(const tbs_oid_s& oid, unsigned gn, const char* name);
  // Removes every name the scope brought in, and the scope (the default scope stays).
  static int delete_lr_scope(const tbs_oid_s& oid);
  // An unknown list type traces "invalid list type %d" and gives 1072.
  static int get_scopes(ScopeListType type, std::vector<tavrel_scope>& scopes);

  // ---- identifier translation: true when found ----
  // Any object (element, version, link) by its namespace dbid, and back.
  static bool obj_dbid_to_oid(const tbs_uuid_s& replica, uint32_t dbid, tbs_oid_s* oid);
  static bool obj_oid_to_dbid(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid);
  static bool obj_oid_to_dbid_mtype(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid,
                                    silo_mtype_t* mtype);
  // Elements only (kinds 2 and 5, and 7: a link is its own element); any other object gives false.
  static bool elem_dbid_to_oid(const tbs_uuid_s& replica, uint32_t dbid, tbs_oid_s* oid);
  static bool elem_oid_to_dbid(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid);

  // ---- storing a fetched object ----
  // Stores the object `obj` of kind `mtype` (3, 6, 8 a version, with its element `elem`; 7 a link, its
  // own element) under `name` in directory version `dir_dbid` of replica `replica`, in load scope
  // `scope_oid` (null: the default scope) at generation `gn`. The element row, the version (or link) row
  // and the name row are written in one transaction, all or nothing. Storing the same entry again gives
  // the same dbids and changes nothing but marks; a changed version or a different object under the name
  // replaces the old one.
  //   parts       which rows to write: 3 (element and version) is what the server's entries carry; 2 the
  //               version alone, of an element the database already holds
  //   flag        1 when the entry was fetched alone (a lookup), 0 when it is one of a listing or update
  //               (traced only: the rows written are the same)
  //   load_state  0 on demand, 1 a directory that a running load lists completely, 2 an update
  // *ver_dbid receives the object's dbid, *elem_dbid its element's; *unchanged (optional) is true when the
  // name already showed this object with its element as asked, so that nothing a cache may hold of them
  // changed (only generations and marks were written). Statuses: 0; 20002 for a replica the
  // database does not know or a directory it does not hold; 20001 for a kind outside 3, 6, 7, 8,
  // attributes that disagree with it (the object's kind, an element OID that is not the element's), a
  // name that is empty, "." or "..", or too long, and for a database failure.
  static int add_db_entry(const tbs_uuid_s& replica, silo_mtype_t mtype, const char* name, uint32_t dir_dbid,
                          const tbs_oid_s& scope_oid, uint32_t gn, int parts, int flag, const tavrel_vstat& obj,
                          const tavrel_vstat& elem, uint32_t* ver_dbid, uint32_t* elem_dbid, int load_state,
                          bool* unchanged = nullptr);

 private:
  std::string m_storage;
};
